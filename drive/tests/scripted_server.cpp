#include "drive/tests/scripted_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <stdexcept>

namespace drive::testing {

namespace {

bool SendAll(int connection, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t sent = send(connection, data, size, MSG_NOSIGNAL);
        if (sent <= 0) return false;
        data += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

// Reads one request head; false when the connection ended.
bool ReadRequest(int connection, std::string& pending, SeenRequest* request) {
    size_t end;
    while ((end = pending.find("\r\n\r\n")) == std::string::npos) {
        char buffer[4096];
        const ssize_t got = recv(connection, buffer, sizeof buffer, 0);
        if (got <= 0) return false;
        pending.append(buffer, static_cast<size_t>(got));
    }
    const std::string head = pending.substr(0, end);
    pending.erase(0, end + 4);
    size_t lineEnd = head.find("\r\n");
    const std::string first = head.substr(0, lineEnd);
    const size_t space = first.find(' ');
    request->method = first.substr(0, space);
    request->path = first.substr(space + 1, first.find(' ', space + 1) - space - 1);
    while (lineEnd != std::string::npos) {
        const size_t next = head.find("\r\n", lineEnd + 2);
        const std::string line = head.substr(lineEnd + 2, next - lineEnd - 2);
        if (const size_t colon = line.find(':'); colon != std::string::npos) {
            std::string name = line.substr(0, colon);
            std::transform(name.begin(), name.end(), name.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
            request->headers[name] = line.substr(line.find_first_not_of(' ', colon + 1));
        }
        lineEnd = next;
    }
    return true;
}

}  // namespace

ScriptedServer::ScriptedServer(Handler handler) : handler_(std::move(handler)) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_ < 0 || bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(listener_, 64) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("cannot listen on 127.0.0.1");
    }
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { Accept(); });
}

ScriptedServer::~ScriptedServer() {
    stopping_ = true;
    shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    {
        std::lock_guard<std::mutex> guard(lock_);
        for (const int connection : connections_) shutdown(connection, SHUT_RDWR);
    }
    for (std::thread& thread : threads_) thread.join();
    close(listener_);
}

std::vector<SeenRequest> ScriptedServer::Requests() {
    std::lock_guard<std::mutex> guard(lock_);
    return requests_;
}

void ScriptedServer::Accept() {
    while (!stopping_) {
        const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) continue;
        std::lock_guard<std::mutex> guard(lock_);
        if (stopping_) {
            close(connection);
            break;
        }
        connections_.push_back(connection);
        threads_.emplace_back([this, connection] { Serve(connection); });
    }
}

void ScriptedServer::Serve(int connection) {
    std::string pending;
    SeenRequest request;
    while (!stopping_ && ReadRequest(connection, pending, &request)) {
        {
            std::lock_guard<std::mutex> guard(lock_);
            requests_.push_back(request);
        }
        const Reply reply = handler_(request);
        std::string head = "HTTP/1.1 " + std::to_string(reply.status) + " Scripted\r\n";
        for (const auto& [name, value] : reply.headers) head += name + ": " + value + "\r\n";
        head += "Content-Length: " + std::to_string(reply.body.size()) + "\r\n\r\n";
        const bool cut = reply.sendBytes >= 0;
        const size_t bodyBytes = request.method == "HEAD" ? 0
                                 : cut ? std::min<size_t>(reply.sendBytes, reply.body.size())
                                       : reply.body.size();
        if (!SendAll(connection, head.data(), head.size()) ||
            !SendAll(connection, reply.body.data(), bodyBytes)) {
            break;
        }
        if (cut) {
            for (int waited = 0; waited < reply.stallMs && !stopping_; waited += 10) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            break;
        }
        request = SeenRequest();
    }
    shutdown(connection, SHUT_RDWR);
    std::lock_guard<std::mutex> guard(lock_);
    connections_.erase(std::find(connections_.begin(), connections_.end(), connection));
    close(connection);
}

Reply ServeContent(const SeenRequest& request, const std::string& content,
                   const std::string& etag) {
    Reply reply;
    reply.headers.push_back({"ETag", etag});
    long long first = 0;
    long long last = 0;
    const auto range = request.headers.find("range");
    if (range != request.headers.end() &&
        sscanf(range->second.c_str(), "bytes=%lld-%lld", &first, &last) == 2) {
        last = std::min<long long>(last, static_cast<long long>(content.size()) - 1);
        reply.status = 206;
        reply.headers.push_back({"Content-Range", "bytes " + std::to_string(first) + "-" +
                                                      std::to_string(last) + "/" +
                                                      std::to_string(content.size())});
        reply.body = content.substr(first, last - first + 1);
        return reply;
    }
    reply.body = content;
    return reply;
}

}  // namespace drive::testing
