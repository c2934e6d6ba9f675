// SPDX-License-Identifier: Apache-2.0
//
// Both ends of the control protocol. An even first byte: the rest is what somebody sends to the
// daemon's socket, which answers with one line of JSON that has "ok" and, refusing, a reason. An
// odd one: it picks a verb of oxelctl, and the rest is what a daemon answers to it; the tool shows
// it or says that it cannot.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "backend/OxelServiceGlobals.h"
#include "base/log.h"
#include "base/store.h"
#include "bin/oxelService.h"
#include "companion/PellService.h"
#include "companion/control_socket.h"
#include "ctl/verbs.h"
#include "fuzz/memory_module.h"

namespace {

using nlohmann::json;
using oxel::fuzz::Demand;
using oxel::fuzz::MemoryModule;

constexpr size_t kReplyBytesMax = 1 << 20;
constexpr const char* kOther = "Other";

class Protocol {
  public:
    Protocol() {
        (void)signal(SIGPIPE, SIG_IGN);
        std::string root = std::filesystem::temp_directory_path() / "oxel-fuzz-XXXXXX";
        Demand(mkdtemp(root.data()) != nullptr, "no directory");
        (void)setenv("OXEL_ROOT", root.c_str(), 1);
        XOPI_Focus::setFocus("Fuzz");
        oxel::LogWriter::SetSink([](const oxel::LogRecord&) {});
        Demand(freopen("/dev/null", "w", stdout) != nullptr, "no null device");
        const oxel::InstancePaths paths("Fuzz"), other(kOther);
        for (const std::string& file :
             {paths.controlSocket, other.controlSocket, paths.exports, paths.registry})
            std::filesystem::create_directories(std::filesystem::path(file).parent_path());
        std::ofstream(paths.exports) << "/a *(ro)\nnonsense\n";
        MemoryModule::Install();
        SetNetworkServiceSetupCB([](bool, bool) { return true; });
        InstallControlHandlers();
        Demand(oxel::StartPellService(paths.controlSocket), "no control socket");
        asked_ = paths.controlSocket;
        answering_ = oxel::ListenUnix(other.controlSocket, &file_);
        Demand(static_cast<bool>(answering_), "no socket");
        const int flags = fcntl(answering_.Get(), F_GETFL);
        Demand(fcntl(answering_.Get(), F_SETFL, flags & ~O_NONBLOCK) == 0, "no blocking socket");
        std::thread([this] { Answer(); }).detach();
    }

    void Request(const std::string& text) {
        const oxel::UniqueFd fd = oxel::ConnectUnix(asked_, oxel::DeadlineAfterMs(60000));
        Demand(static_cast<bool>(fd), "the daemon takes no connection");
        // Who refuses a text that is too long need not have read it.
        (void)oxel::SendAll(fd.Get(), text, oxel::DeadlineAfterMs(60000));
        (void)shutdown(fd.Get(), SHUT_WR);
        std::string line;
        const oxel::LineResult result =
            oxel::ReceiveLine(fd.Get(), kReplyBytesMax, oxel::DeadlineAfterMs(60000), &line);
        OxelServiceGlobals::SetExitProcess(0);  // "stop" has set it
        if (result != oxel::LineResult::Line) {
            // Not a word is somebody looking whether the daemon lives; a text that is too long may
            // be lost with its answer.
            Demand(text.empty() || text.size() > 65536, "a request without an answer");
            return;
        }
        const json reply = json::parse(line, nullptr, false);
        Demand(reply.is_object() && reply.contains("ok") && reply["ok"].is_boolean(),
               "an answer that is none");
        Demand(reply["ok"].get<bool>() || (reply.contains("error") && reply["error"].is_string()),
               "a refusal without a reason");
    }

    void Reply(uint8_t verb, const std::string& text) {
        using namespace oxel::ctl;
        static constexpr ExitCode (*kVerbs[])(const Settings&) = {
            Status, Perf,   LogLevel, StartNetwork, Stop, Exports,
            Mounts, Reload, Clients,  Stats,        Why};
        static constexpr uint8_t kJson = 0x40;
        Settings settings;
        settings.instance = kOther;
        settings.json = (verb & kJson) != 0;
        settings.why.address = "10.0.0.5";
        settings.why.path = "/a";
        answer_ = text;
        const ExitCode code = kVerbs[(verb & ~kJson) % std::size(kVerbs)](settings);
        Demand(code == kDone || code == kRefused || code == kNoDaemon, "an exit code for usage");
    }

  private:
    void Answer() {
        for (;;) {
            const oxel::UniqueFd fd(accept4(answering_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!fd) continue;
            std::string request;
            (void)oxel::ReceiveLine(fd.Get(), kReplyBytesMax, {}, &request);
            (void)oxel::SendAll(fd.Get(), answer_, {});
        }
    }

    std::string asked_, answer_;
    oxel::UniqueFd answering_;
    oxel::SocketFile file_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > 100000) return 0;
    static Protocol* const protocol = new Protocol;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] % 2 == 0)
        protocol->Request(text);
    else
        protocol->Reply(data[0] / 2, text);
    return 0;
}
