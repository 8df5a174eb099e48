// A small HTTP/1.1 server on 127.0.0.1 for the drive's tests: every request
// is answered by a function the test supplies, which can also cut a body
// short or stall, faults a real web server does not produce on demand.
//
// Thread-safe: one thread per connection; the log of requests is locked.
#ifndef DRIVE_TESTS_SCRIPTED_SERVER_H_
#define DRIVE_TESTS_SCRIPTED_SERVER_H_

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace drive::testing {

struct SeenRequest {
    std::string method;
    std::string path;
    std::map<std::string, std::string> headers;  // names in lower case
};

struct Reply {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    long long sendBytes = -1;  // send only this much of the body, then close
    int stallMs = 0;           // after those bytes, wait this long before closing
};

class ScriptedServer {
  public:
    using Handler = std::function<Reply(const SeenRequest&)>;

    // Listens on a free port; throws std::runtime_error when it cannot.
    explicit ScriptedServer(Handler handler);
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;
    ~ScriptedServer();

    std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
    std::vector<SeenRequest> Requests();

  private:
    void Accept();
    void Serve(int connection);

    Handler handler_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::mutex lock_;
    std::vector<SeenRequest> requests_;
    std::vector<int> connections_;
    std::vector<std::thread> threads_;
    std::thread acceptor_;
};

// A reply serving `content` the way a web server does: the Range header's
// bytes with 206 and Content-Range, else everything with 200.
Reply ServeContent(const SeenRequest& request, const std::string& content,
                   const std::string& etag = "\"v1\"");

}  // namespace drive::testing

#endif  // DRIVE_TESTS_SCRIPTED_SERVER_H_
