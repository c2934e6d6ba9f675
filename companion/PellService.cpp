// SPDX-License-Identifier: Apache-2.0
//
// The control socket's server. One thread accepts; each connection is one request on a thread of
// its own, so that "status" is answered while "start-network" takes its minutes. Whatever bytes
// come, the answer is a line of JSON.
#include "companion/PellService.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <memory>
#include <new>
#include <set>

#include "base/log.h"
#include "base/patience.h"
#include "base/sync.h"
#include "base/thread.h"
#include "base/thread_pool.h"
#include "companion/control_socket.h"

namespace oxel {

namespace {

using nlohmann::json;

constexpr unsigned kConnectionsMax = 8;
constexpr size_t kRequestBytesMax = 65536;
constexpr unsigned kRequestMs = 5000;  // for the whole request to come
constexpr unsigned kReplyMs = 10000;   // for the whole reply to be read
constexpr auto kStopWait = std::chrono::seconds(1);
constexpr unsigned long kThreadIdleSeconds = 30;
constexpr int kAcceptRetryMs = 100;

ControlReply Refusal(std::string text) {
    ControlReply reply;
    reply.ok = false;
    reply.error = std::move(text);
    return reply;
}

std::string ReplyLine(const ControlReply& reply) {
    json line = reply.body.is_object() ? reply.body : json::object();
    line["ok"] = reply.ok;
    if (!reply.ok) line["error"] = reply.error;
    // File names need not be UTF-8; a reply must be.
    return line.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

// What the administrator may ask for, and what the daemon has told.
struct Verbs {
    XoCriticalSection mutex;
    std::map<std::string, ControlHandler> handlers GUARDED_BY(mutex);
    NetworkServiceSetupCB startNetwork GUARDED_BY(mutex) = nullptr;
    bool servicesNotStarted GUARDED_BY(mutex) = true;
    bool portMapperNotRegistered GUARDED_BY(mutex) = true;
};

Verbs& TheVerbs() {
    static auto* verbs = new Verbs;
    return *verbs;
}

ControlReply StartNetwork(const json& request) {
    bool registerWithPortMapper = false;
    if (const auto found = request.find("register"); found != request.end()) {
        if (!found->is_boolean()) return Refusal("\"register\" must be true or false");
        registerWithPortMapper = found->get<bool>();
    }
    Verbs& verbs = TheVerbs();
    NetworkServiceSetupCB start = nullptr;
    {
        XoCriticalSectionGuard lock(verbs.mutex);
        start = verbs.startNetwork;
    }
    if (start == nullptr)
        return Refusal(
            "this daemon starts its network services itself; it takes the request only when it was "
            "started with -no_nfs or -no_pm_reg");
    OXEL_LOG(1, "Network services are started as the administrator asks. Register [%s]",
             registerWithPortMapper ? "true" : "false");
    if (!start(registerWithPortMapper, true))
        return Refusal("the network services could not be started; the log says why");
    ControlReply reply;
    XoCriticalSectionGuard lock(verbs.mutex);
    reply.body["servicesStarted"] = !verbs.servicesNotStarted;
    reply.body["portMapperRegistered"] = !verbs.portMapperNotRegistered;
    return reply;
}

ControlReply Answer(const std::string& line) {
    const json request = json::parse(line, nullptr, false);
    if (request.is_discarded()) return Refusal("the request is not JSON");
    if (!request.is_object()) return Refusal("the request is not a JSON object");
    const auto found = request.find("verb");
    if (found == request.end() || !found->is_string())
        return Refusal("the request has no \"verb\", or one that is not text");
    const std::string verb = found->get<std::string>();
    OXEL_LOG(3, "Control request [%s]", verb.c_str());
    if (verb == "start-network") return StartNetwork(request);
    ControlHandler handler;
    {
        Verbs& verbs = TheVerbs();
        XoCriticalSectionGuard lock(verbs.mutex);
        if (const auto known = verbs.handlers.find(verb); known != verbs.handlers.end())
            handler = known->second;
    }
    if (!handler) return Refusal("unknown request \"" + EscapeControl(verb) + "\"");
    return handler(request);
}

ControlReply AnswerAnything(LineResult result, const std::string& line) {
    switch (result) {
        case LineResult::Line:
            break;
        case LineResult::TooLong:
            return Refusal("the request is longer than " + std::to_string(kRequestBytesMax) +
                           " bytes");
        case LineResult::TimedOut:
            return Refusal("the request did not come within " + std::to_string(kRequestMs / 1000) +
                           " seconds");
        case LineResult::Closed:
        case LineResult::Failed:
            return Refusal("the request does not end with a newline");
    }
    try {
        return Answer(line);
    } catch (const std::exception& exception) {
        return Refusal(exception.what());
    } catch (...) {
        return Refusal("unknown exception");
    }
}

bool PeerMayAsk(int fd) {
    ucred peer;
    socklen_t length = sizeof peer;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
           (peer.uid == 0 || peer.uid == geteuid());
}

// True on a thread that runs a handler: one that stops the server must not wait for itself.
thread_local bool tlsHandling = false;

class ControlServer {
  public:
    // False with errno.
    bool Start(const std::string& path) {
        XoCriticalSectionGuard startStop(startStopMutex_);
        if (listener_) {
            errno = EALREADY;
            return false;
        }
        UniqueFd wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!wake) return false;
        UniqueFd listener = ListenUnix(path, &file_);
        if (!listener) return false;
        // False when it runs from an earlier start.
        (void)pool_.initThreadPool("PELL", kThreadIdleSeconds, 0, kConnectionsMax, 0);
        wake_ = std::move(wake);
        listener_ = std::move(listener);
        {
            XoCriticalSectionGuard lock(mutex_);
            stopping_ = false;
        }
        if (acceptor_.start("PELL", &ControlServer::Accept, this)) return true;
        const int savedErrno = errno;
        RemoveSocketFile(file_);
        listener_.Reset();
        errno = savedErrno;
        return false;
    }

    void Stop() {
        XoCriticalSectionGuard startStop(startStopMutex_);
        if (!listener_) return;
        RemoveSocketFile(file_);
        const uint64_t one = 1;
        {
            XoCriticalSectionGuard lock(mutex_);
            stopping_ = true;
            // Who has not finished asking is not waited for.
            for (const int fd : asking_) (void)shutdown(fd, SHUT_RD);
        }
        if (write(wake_.Get(), &one, sizeof one) < 0)
            OXEL_LOG(-1, "The control socket's thread cannot be woken: %m");
        acceptor_.join();
        listener_.Reset();
        const auto deadline = std::chrono::steady_clock::now() + kStopWait;
        XoCriticalSectionGuard lock(mutex_);
        const unsigned mine = tlsHandling ? 1 : 0;
        while (handling_ > mine && handled_.waitUntil(mutex_, deadline)) {
        }
    }

  private:
    struct Connection {
        ControlServer* server;
        UniqueFd fd;
    };

    static void* Accept(void* self) {
        static_cast<ControlServer*>(self)->AcceptLoop();
        return nullptr;
    }

    void AcceptLoop() {
        const PatientNew patient;
        for (;;) {
            pollfd both[2] = {{wake_.Get(), POLLIN, 0}, {listener_.Get(), POLLIN, 0}};
            if (poll(both, 2, -1) < 0 && errno != EINTR) return;
            if (both[0].revents != 0) return;
            UniqueFd fd(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
            if (fd) {
                try {
                    Take(std::move(fd));
                } catch (const std::bad_alloc&) {
                    OXEL_LOG(-1, "No memory for a control request.");
                }
            } else if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
                // Out of descriptors or memory: not to be asked for again at once.
                (void)poll(both, 1, kAcceptRetryMs);
            }
        }
    }

    void Take(UniqueFd accepted) {
        auto connection = std::make_unique<Connection>(Connection{this, std::move(accepted)});
        const int fd = connection->fd.Get();
        if (!PeerMayAsk(fd)) {
            RefuseAtOnce(fd, "only root and the daemon's own user may ask");
            return;
        }
        bool busy = false;
        {
            XoCriticalSectionGuard lock(mutex_);
            if (stopping_) return;
            busy = connections_ == kConnectionsMax;
            if (!busy) {
                asking_.insert(fd);
                ++connections_;
            }
        }
        if (busy) {
            RefuseAtOnce(fd, "the daemon is busy with other requests; try again");
        } else if (pool_.doWork(&ControlServer::Serve, connection.get())) {
            (void)connection.release();  // Serve frees it
        } else {
            RefuseAtOnce(fd, "the daemon has no thread for the request");
            Forget(fd);
        }
    }

    // On the accepting thread, so without waiting: the line fits into any socket's buffer.
    static void RefuseAtOnce(int fd, const char* text) {
        (void)SendAll(fd, ReplyLine(Refusal(text)), DeadlineAfterMs(0));
    }

    static void* Serve(void* opaque) {
        // The JSON library allocates where it ends a value too, from where no exception gets out.
        const PatientNew patient;
        const std::unique_ptr<Connection> connection(static_cast<Connection*>(opaque));
        connection->server->ServeOne(connection->fd.Get());
        return nullptr;
    }

    void ServeOne(int fd) {
        std::string line;
        const LineResult result =
            ReceiveLine(fd, kRequestBytesMax, DeadlineAfterMs(kRequestMs), &line);
        // A connection without a word was somebody looking whether the daemon lives.
        const bool silent = result == LineResult::Closed && line.empty();
        if (!silent && BeginHandling(fd)) {
            tlsHandling = true;
            const std::string reply = ReplyLine(AnswerAnything(result, line));
            tlsHandling = false;
            // Who does not read the reply does not get it.
            (void)SendAll(fd, reply, DeadlineAfterMs(kReplyMs));
            EndHandling();
        }
        Forget(fd);
    }

    // False when the server is stopping.
    bool BeginHandling(int fd) EXCLUDES(mutex_) {
        XoCriticalSectionGuard lock(mutex_);
        asking_.erase(fd);
        if (stopping_) return false;
        ++handling_;
        return true;
    }

    void EndHandling() EXCLUDES(mutex_) {
        XoCriticalSectionGuard lock(mutex_);
        --handling_;
        handled_.notifyAll();
    }

    // The caller closes the descriptor after this.
    void Forget(int fd) EXCLUDES(mutex_) {
        XoCriticalSectionGuard lock(mutex_);
        asking_.erase(fd);
        --connections_;
    }

    XoCriticalSection startStopMutex_ ACQUIRED_BEFORE(mutex_);
    // Changed under startStopMutex_; constant while the acceptor runs.
    UniqueFd listener_, wake_;
    SocketFile file_ GUARDED_BY(startStopMutex_);
    XoThread acceptor_ GUARDED_BY(startStopMutex_);

    XoThreadPool pool_;  // synchronised by itself

    XoCriticalSection mutex_;
    oxel::Condition handled_;
    std::set<int> asking_ GUARDED_BY(mutex_);      // connections whose request has not come yet
    unsigned connections_ GUARDED_BY(mutex_) = 0;  // all that have a thread
    unsigned handling_ GUARDED_BY(mutex_) = 0;     // those whose request has come
    bool stopping_ GUARDED_BY(mutex_) = false;
};

// Never destroyed: a handler may run for minutes, also while the process ends.
ControlServer& TheServer() {
    static auto* server = new ControlServer;
    return *server;
}

}  // namespace

void SetControlHandler(const std::string& verb, ControlHandler handler) {
    Verbs& verbs = TheVerbs();
    XoCriticalSectionGuard lock(verbs.mutex);
    verbs.handlers[verb] = std::move(handler);
}

bool StartPellService(const std::string& socketPath) {
    return TheServer().Start(socketPath);
}

}  // namespace oxel

void SetNetworkServiceSetupCB(NetworkServiceSetupCB callback) {
    oxel::Verbs& verbs = oxel::TheVerbs();
    XoCriticalSectionGuard lock(verbs.mutex);
    verbs.startNetwork = callback;
}

void SetStartupArgs(bool servicesNotStarted, bool portMapperNotRegistered) {
    oxel::Verbs& verbs = oxel::TheVerbs();
    XoCriticalSectionGuard lock(verbs.mutex);
    verbs.servicesNotStarted = servicesNotStarted;
    verbs.portMapperNotRegistered = portMapperNotRegistered;
}

void StopPellService() {
    oxel::TheServer().Stop();
}
