// The client's connections: how requests share them.
#include "drive/http_client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "drive/tests/scripted_server.h"

namespace drive {
namespace {

using testing::Reply;
using testing::ScriptedServer;
using testing::SeenRequest;

// Bulk transfers that hold every connection (the server stalls them) leave
// room for one request that is not bulk, and for no further bulk one.
TEST(HttpClientTest, ARequestThatIsNotBulkPassesBulkTransfersHoldingEveryConnection) {
    std::atomic<int> stalled{0};
    ScriptedServer server([&](const SeenRequest& request) {
        if (request.path != "/slow") return Reply{200, {}, "ok"};
        ++stalled;
        Reply reply{200, {}, std::string(1000, 'x')};
        reply.sendBytes = 10;
        reply.stallMs = 1500;
        return reply;
    });
    Stats stats;
    HttpClient client(server.Url(), 2, HttpLimits(), &stats);
    std::vector<std::thread> bulk;
    for (int i = 0; i < 3; ++i) {
        bulk.emplace_back([&] {
            HttpRequest request;
            request.path = "slow";
            request.bulk = true;
            client.Send(request, [](const HttpResponse&, const char*, size_t) { return true; });
        });
    }
    while (stalled.load() < 2) std::this_thread::sleep_for(std::chrono::milliseconds(5));

    HttpRequest small;
    small.path = "fast";
    std::string body;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client.SendForText(small, &body, 100).status, 200);
    EXPECT_EQ(body, "ok");
    // Well before the stalled transfers end.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1000));
    EXPECT_EQ(stalled.load(), 2);
    for (std::thread& thread : bulk) thread.join();
    EXPECT_EQ(stalled.load(), 3);
}

}  // namespace
}  // namespace drive
