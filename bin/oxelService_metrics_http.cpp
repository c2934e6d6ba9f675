// SPDX-License-Identifier: Apache-2.0
//
// The HTTP server of the metrics: one thread, a few connections, one page.
#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <string>

#include "base/log.h"
#include "base/store.h"
#include "bin/oxelService_metrics.h"

namespace {

constexpr unsigned kConnections = 16, kTimeoutSeconds = 10;

struct Page {
    unsigned status;
    std::string text;
};

Page PageFor(const char* path, const char* method, bool perClient) {
    if (strcmp(method, MHD_HTTP_METHOD_GET) != 0 && strcmp(method, MHD_HTTP_METHOD_HEAD) != 0)
        return {MHD_HTTP_METHOD_NOT_ALLOWED, "Only GET.\n"};
    if (strcmp(path, "/metrics") != 0)
        return {MHD_HTTP_NOT_FOUND, "The figures are at /metrics.\n"};
    return {MHD_HTTP_OK, MetricsText(perClient)};
}

MHD_Result Answer(void* perClient, MHD_Connection* connection, const char* path, const char* method,
                  const char*, const char*, size_t* bodyBytes, void** seen) {
    static char headersSeen;
    if (*seen == nullptr) {
        *seen = &headersSeen;  // the request's body, if it has one, comes in further calls
        return MHD_YES;
    }
    if (*bodyBytes != 0) {
        *bodyBytes = 0;
        return MHD_YES;
    }
    try {
        const Page page = PageFor(path, method, perClient != nullptr);
        MHD_Response* response = MHD_create_response_from_buffer(
            page.text.size(), const_cast<char*>(page.text.data()), MHD_RESPMEM_MUST_COPY);
        if (response == nullptr) return MHD_NO;
        (void)MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE,
                                      "text/plain; version=0.0.4; charset=utf-8");
        const MHD_Result queued = MHD_queue_response(connection, page.status, response);
        MHD_destroy_response(response);
        return queued;
    } catch (const std::exception& exception) {
        OXEL_LOG(-1, "Error: The metrics cannot be told. [%s]", exception.what());
        return MHD_NO;  // the connection ends
    }
}

}  // namespace

void StartMetrics() {
    unsigned port = 0, perClient = 0;
    XOPlatformInfo store;
    if (!store.getNumber("Oxel", "nMetricsPort", &port) || port == 0) return;
    (void)store.getNumber("Oxel", "nMetricsPerClient", &perClient);
    if (port > UINT16_MAX) {
        OXEL_LOG(-1, "Error: No metrics: nMetricsPort [%u] is no port.", port);
        return;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    static const char yes = 1;
    errno = 0;
    // It is never stopped: it ends with the process.
    const MHD_Daemon* server =
        MHD_start_daemon(MHD_USE_AUTO_INTERNAL_THREAD, 0, nullptr, nullptr, Answer,
                         perClient != 0 ? const_cast<char*>(&yes) : nullptr, MHD_OPTION_SOCK_ADDR,
                         &address, MHD_OPTION_CONNECTION_LIMIT, kConnections,
                         MHD_OPTION_CONNECTION_TIMEOUT, kTimeoutSeconds, MHD_OPTION_END);
    if (server == nullptr)
        OXEL_LOG(-1, "Error: No metrics at [127.0.0.1:%u]. [%s]", port, strerror(errno));
    else
        OXEL_LOG(1, "Metrics are at [http://127.0.0.1:%u/metrics].", port);
}
