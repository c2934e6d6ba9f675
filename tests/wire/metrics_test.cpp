// SPDX-License-Identifier: Apache-2.0
//
// The figures for Prometheus, fetched over HTTP as it does.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "tests/wire/wire_fixture.h"

namespace oxel::test {
namespace {

UniqueFd ConnectTo(const char* address, uint16_t port) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    EXPECT_EQ(inet_pton(AF_INET, address, &to.sin_addr), 1);
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (connect(fd.Get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) fd.Reset();
    return fd;
}

// A socket at a port that nobody had, for as long as it lives.
UniqueFd TakePort(uint16_t* port) {
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    *port = ntohs(address.sin_port);
    return fd;
}

class Metrics : public WireTest {
  protected:
    void SetUp() override {}  // each test has its own settings
    void StartWithMetrics(const std::string& more = "") {
        (void)TakePort(&port_);  // and let go at once
        StartDaemon("nMetricsPort = " + std::to_string(port_) + "\n" + more);
    }
    // All that comes for a request, head and body.
    std::string Exchange(const std::string& request) const {
        const UniqueFd fd = ConnectTo("127.0.0.1", port_);
        EXPECT_TRUE(fd) << "nobody listens at " << port_;
        if (!fd) return "";
        EXPECT_EQ(write(fd.Get(), request.data(), request.size()),
                  static_cast<ssize_t>(request.size()));
        std::string all;
        char bytes[4096];
        for (ssize_t count; (count = read(fd.Get(), bytes, sizeof bytes)) > 0;)
            all.append(bytes, static_cast<size_t>(count));
        return all;
    }
    std::string Get(const std::string& path) const {
        return Exchange("GET " + path +
                        " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
    }
    // What stands behind each "name{labels} ".
    std::map<std::string, std::string> Figures() const {
        const std::string reply = Get("/metrics");
        EXPECT_EQ(reply.rfind("HTTP/1.1 200 ", 0), 0u) << reply;
        std::istringstream body(reply.substr(reply.find("\r\n\r\n") + 4));
        std::map<std::string, std::string> figures;
        for (std::string line; std::getline(body, line);) {
            if (line.empty() || line[0] == '#') continue;
            const size_t blank = line.rfind(' ');
            figures[line.substr(0, blank)] = line.substr(blank + 1);
        }
        return figures;
    }
    // Waits for a figure: a reply is on its way before its call is counted.
    void ExpectFigure(const std::string& name, const std::string& value) const {
        std::map<std::string, std::string> figures;
        EXPECT_TRUE(WaitUntil([&] { return (figures = Figures())[name] == value; }, 20000))
            << name << " is " << figures[name];
    }

    uint16_t port_ = 0;
};

TEST_P(Metrics, CallsAreToldByProcedureAndShare) {
    StartWithMetrics();
    tree_.Write("rw/f", std::string(3000, 'x'));
    NfsClient client(Port());
    const std::string root = client.MountShare("/rw");
    const std::string file = client.Lookup(root, "f");
    uint32_t status = 0;
    (void)client.Lookup(root, "missing", &status);
    EXPECT_EQ(status, 2u);
    EXPECT_EQ(client.Read(file, 0, 4000).size(), 3000u);
    EXPECT_EQ(client.Status(client.Nfs(nfs::kWrite, WriteArguments(file, 0, 0, "1234567"))), 0u);

    ExpectFigure(
        R"(oxelnfsd_call_duration_seconds_count{program="NFS",procedure="WRITE",share="/rw"})",
        "1");
    const auto figures = Figures();
    const auto at = [&figures](const std::string& name) {
        const auto found = figures.find(name);
        return found == figures.end() ? "missing" : found->second;
    };
    EXPECT_EQ(
        at(R"(oxelnfsd_call_duration_seconds_count{program="NFS",procedure="LOOKUP",share="/rw"})"),
        "2");
    EXPECT_EQ(at(R"(oxelnfsd_call_duration_seconds_bucket{program="NFS",procedure="LOOKUP",)"
                 R"(share="/rw",le="+Inf"})"),
              "2");
    EXPECT_EQ(at(R"(oxelnfsd_call_errors_total{program="NFS",procedure="LOOKUP",share="/rw",)"
                 R"(status="NOENT"})"),
              "1");
    EXPECT_EQ(
        at(R"(oxelnfsd_call_duration_seconds_count{program="MOUNT",procedure="MNT",share=""})"),
        "1");
    EXPECT_EQ(at(R"(oxelnfsd_read_bytes_total{share="/rw"})"), "3000");
    EXPECT_EQ(at(R"(oxelnfsd_written_bytes_total{share="/rw"})"), "7");
    EXPECT_EQ(at("oxelnfsd_shares"), "6");
    EXPECT_EQ(at("oxelnfsd_clients"), "1");
    EXPECT_EQ(at("oxelnfsd_connections"), "1");
    EXPECT_EQ(at("oxelnfsd_call_records_in_use"), "0");
    EXPECT_EQ(at(R"(oxelnfsd_rejected_calls_total{reason="weakCredential"})"), "0");
    for (const auto& [name, value] : figures) {
        EXPECT_EQ(name.rfind("oxelnfsd_", 0), 0u) << name;
        EXPECT_EQ(name.find("client="), std::string::npos) << name << ": nobody asked for it";
    }
}

TEST_P(Metrics, ClientsAreToldWhenAsked) {
    StartWithMetrics("nMetricsPerClient = 1\n");
    NfsClient client(Port());
    EXPECT_EQ(client.Results(client.Nfs(nfs::kNull, "")), "");
    ExpectFigure(R"(oxelnfsd_client_calls_total{client="127.0.0.1"})", "1");
    ExpectFigure(R"(oxelnfsd_client_errors_total{client="127.0.0.1"})", "0");
}

TEST_P(Metrics, HistogramsOnlyGrow) {
    StartWithMetrics();
    NfsClient client(Port());
    (void)client.MountShare("/rw");
    ExpectFigure(
        R"(oxelnfsd_call_duration_seconds_count{program="MOUNT",procedure="MNT",share=""})", "1");
    const std::string reply = Get("/metrics");
    std::istringstream body(reply);
    uint64_t before = 0;
    int buckets = 0;
    for (std::string line; std::getline(body, line);) {
        if (line.find("_bucket{program=\"MOUNT\",procedure=\"MNT\"") == std::string::npos) continue;
        const uint64_t count = std::stoull(line.substr(line.rfind(' ') + 1));
        EXPECT_GE(count, before) << line;
        before = count;
        ++buckets;
    }
    EXPECT_EQ(buckets, 12);
    EXPECT_EQ(before, 1u);
}

TEST_P(Metrics, OnlyThisMachineIsTold) {
    StartWithMetrics();
    EXPECT_TRUE(ConnectTo("127.0.0.1", port_));
    EXPECT_FALSE(ConnectTo("127.0.0.2", port_)) << "it listens on more than 127.0.0.1";
}

TEST_P(Metrics, OtherPagesAndMethodsAreRefused) {
    StartWithMetrics();
    const std::string other = Get("/");
    EXPECT_EQ(other.rfind("HTTP/1.1 404 ", 0), 0u) << other;
    EXPECT_NE(other.find("The figures are at /metrics."), std::string::npos);
    const std::string post = Exchange(
        "POST /metrics HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\nConnection: close\r\n\r\nabc");
    EXPECT_EQ(post.rfind("HTTP/1.1 405 ", 0), 0u) << post;
    // No HTTP at all.
    (void)Exchange("\r\n\r\n\x80\x01garbage\r\n\r\n");
    EXPECT_EQ(Get("/metrics").rfind("HTTP/1.1 200 ", 0), 0u);
}

// What somebody on this machine does to the figures is nothing to clients.
TEST_P(Metrics, ThoseWhoConnectAndSayNothingHoldNobodyUp) {
    StartWithMetrics();
    std::vector<UniqueFd> idle;
    for (int i = 0; i < 64; ++i) idle.push_back(ConnectTo("127.0.0.1", port_));
    ExpectServing();
    idle.clear();
    EXPECT_TRUE(WaitUntil([&] { return Get("/metrics").rfind("HTTP/1.1 200 ", 0) == 0; }));
}

TEST_P(Metrics, PortThatIsTakenIsToldAndTheDaemonServes) {
    const UniqueFd taken = TakePort(&port_);
    ASSERT_EQ(listen(taken.Get(), 1), 0);
    const std::string port = std::to_string(port_);
    StartDaemon("nMetricsPort = " + port + "\n");
    EXPECT_TRUE(
        daemon_.LogHas("Error: No metrics at [127.0.0.1:" + port + "]. [Address already in use]"));
    ExpectServing();
}

TEST_P(Metrics, NumberThatIsNoPortIsTold) {
    StartDaemon("nMetricsPort = 70000\n");
    EXPECT_TRUE(daemon_.LogHas("Error: No metrics: nMetricsPort [70000] is no port."));
    ExpectServing();
}

OXEL_ALL_MODES(Metrics);

}  // namespace
}  // namespace oxel::test
