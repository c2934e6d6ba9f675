// SPDX-License-Identifier: Apache-2.0
//
// Process entry: the command line, the claim on the instance, the start of the services, and
// waiting for the end.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <strings.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "base/event_log.h"
#include "base/instance.h"
#include "base/log.h"
#include "base/patience.h"
#include "base/store.h"
#include "base/sync.h"
#include "base/thread.h"
#include "base/unique_fd.h"
#include "bin/modules.h"
#include "bin/oxelService.h"
#include "bin/oxelService_limits.h"
#include "bin/oxelService_metrics.h"
#include "bin/oxelService_notify.h"
#include "companion/PellService.h"

static constexpr unsigned kFatalErrorEvent = 0x5B0000E7;
static constexpr unsigned kProgramId = 0x1A90B226;
static constexpr uint32_t kIdleMs = 2000, kLastCallsMs = 5000, kManagerMs = 500;

void PrintUsage() {
    EvDebug::Debug("PrintUsage", "Usage: oxelnfsd -cn <clientname> -vm <Instance>");
}

// Never returns.
[[noreturn]] void exitOnFatalError(const std::string& step) {
    EvEvent event;
    event.MajorEvent(kFatalErrorEvent, 0, 256);
    event.disconnect();
    EvEvent::terminate();
    EvDebug::Error(step.c_str(), "Fatal");
    _exit(1);
}

bool RegisterService(const std::string& instance) {
    if (uxsvc_checkin("oxelnfsd") != 0) {
        EvDebug::Debug("RegisterService", "Acquired oxelnfsd instance lock.");
        return true;
    }
    EvDebug::Debug("RegisterService", "oxelnfsd is already running in this instance [%s]",
                   instance.c_str());
    return false;
}

// Only the RPC library prints there: a line for each credential that it cannot decode. As many as a
// client likes would fill a file, and hold the receive thread up where the reader of a pipe is
// slow.
static void SilenceStandardOutput() {
    const oxel::UniqueFd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (null) (void)dup2(null.Get(), STDOUT_FILENO);  // else it stays as it was
}

// What the companion service calls to have the network services started later.
bool SetupNetworkServices(bool registerWithPortMapper, bool reportStartupArgs) {
    std::string failedStep;
    if (!StartNetworkServices(failedStep)) {
        OXEL_LOG(-1, "Failed to start Network Services. Erer [%s]", failedStep.c_str());
        return false;
    }
    if (registerWithPortMapper) RegisterAllServicesWithPortMapper();
    if (reportStartupArgs)
        SetStartupArgs(!OxelServiceGlobals::networkServicesStarted,
                       !OxelServiceGlobals::portMapperRegistered);
    OxelServiceGlobals::SetDoNotStartNFSServices(false);
    return true;
}

// Fills the instance name and OxelServiceGlobals. False: usage error.
static bool ParseArguments(int argc, char** argv, std::string* instance) {
    bool instanceGiven = false;
    for (int i = 0; i < argc; ++i) {
        if (strcasecmp(argv[i], "-cn") == 0) {
            if (++i >= argc) return false;
            OxelServiceGlobals::SetClientName(argv[i]);
        } else if (strcasecmp(argv[i], "-vm") == 0) {
            if (i + 1 >= argc) return false;
            instanceGiven = true;
            // The value is looked at again as if it were an option.
            *instance = argv[i + 1];
        } else if (strcasecmp(argv[i], "-no_nfs") == 0) {
            OxelServiceGlobals::SetDoNotStartNFSServices(true);
            SetNetworkServiceSetupCB(SetupNetworkServices);
        } else if (strcasecmp(argv[i], "-no_pm_reg") == 0) {
            OxelServiceGlobals::SetCoExistWithOtherNFSServers(true);
            OxelServiceGlobals::SetDoNotNeedDiskCache(true);
            SetNetworkServiceSetupCB(SetupNetworkServices);
        }
    }
    return instanceGiven && oxel::IsValidInstanceName(*instance) &&
           oxel::IsValidInstanceName(OxelServiceGlobals::clientName);
}

// The store's word, when there is one, wins over the command line.
static void DecideOnNetworkServices(const char* function) {
    static constexpr const char* kKey = "nNoNetworkServices";
    unsigned int value = 0;
    if (!XOPlatformInfo().getNumber("Oxel", kKey, &value)) {
        OXEL_LOG_AS(function, 1, "Oxel/%s is not set.", kKey);
        if (!OxelServiceGlobals::doNotStartNFSServices)
            OXEL_LOG_AS(function, 1, " PortMapper/Mount/NFS services will be started.");
        else
            OXEL_LOG_AS(function, 1,
                        " PortMapper/Mount/NFS services will NOT be started as per UXA's request.");
    } else if (value == 0) {
        OxelServiceGlobals::SetDoNotStartNFSServices(false);
        OXEL_LOG_AS(function, 1,
                    "Oxel/%s set to [%u]. PortMapper/Mount/NFS services will be started.", kKey,
                    value);
    } else {
        OxelServiceGlobals::SetDoNotStartNFSServices(true);
        OXEL_LOG_AS(function, 1,
                    "Oxel/%s set to [%u]. PortMapper/Mount/NFS services will not be started.", kKey,
                    value);
    }
}

// SIGTERM and SIGINT end the process, SIGHUP reopens the log and reloads the shares. All threads
// have them blocked and one waits for them, so no handler runs in the middle of anything.
static sigset_t HandledSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGHUP);
    return signals;
}

// The end of the process: from the named lock's holder, or from the thread that waits for signals.
[[noreturn]] static void Leave(XoNamedMutex* lock, uint32_t loopWaitMs) {
    static std::atomic<bool> leaving{false};
    if (leaving.exchange(true))
        for (;;) pause();  // the other thread is about to end the process
    StopNotifying(kManagerMs);
    // The receive loop takes the control socket away; it needs a moment, not a whole cycle.
    WaitForReceiveLoop(loopWaitMs);
    // A client sends again what has no answer. A RENAME that was done and is done again fails, so
    // what was begun is answered; a disk that hangs does not keep the process.
    if (!WaitForCallsInFlight(kLastCallsMs))
        OXEL_LOG(-1, "Error: Calls are still being handled after [%u] ms. Ending without them.",
                 kLastCallsMs);
    StopPellService();
    SettleFileSystemModules();
    SumUpForClients(true);
    EvDebug::Debug("main", "oxelnfsd exiting.");
    if (lock != nullptr) lock->unlock();
    _exit(0);
}

// Set by SIGHUP. Several before a reload begins are one.
static XoEvent gReloadWanted;

// A thread of its own: a reload may wait for name servers, and SIGTERM is not to wait with it.
static void* ReloadWhenAsked(void*) {
    for (;;) {
        gReloadWanted.wait();
        try {
            ReloadShares();
        } catch (const std::exception& exception) {
            OXEL_LOG(-1, "Error: Failed to reload the shares. [%s]", exception.what());
        }
    }
}

static void* WaitForSignals(void*) {
    const sigset_t signals = HandledSignals();
    for (int number = 0;;) {
        if (sigwait(&signals, &number) != 0) continue;
        if (number == SIGHUP) {
            if (!oxel::LogWriter::Reopen())
                OXEL_LOG(-1, "Error: Failed to reopen the log. [%s]", strerror(errno));
            gReloadWanted.set();
            continue;
        }
        RequestStop();
        // main() ends the process, unless it is held up by somebody who does not know that it is to
        // end: a port mapper that does not answer has a minute.
        (void)poll(nullptr, 0, kIdleMs);
        Leave(nullptr, 0);
    }
}

// Memory that is short at the start ends the process here.
int main(int argc, char** argv) {  // NOLINT(bugprone-exception-escape)
    const sigset_t signals = HandledSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    oxel::InstallPatience();
    OxelServiceGlobals::SetOxelStatus(OxelStarting);

    std::string instance;
    if (!ParseArguments(argc, argv, &instance)) {
        PrintUsage();
        _exit(1);
    }

    XOPI_Focus::setFocusClientNameFromArgs(argc, argv);
    const VMArgsAdjust adjusted(argc, argv, false);
    // Twice: the first focus may create what the second one then finds.
    XOPI_Focus::setFocus(VMArgsAdjust::getName());
    XOPI_Focus::setFocus(VMArgsAdjust::getName());
    if (EvEvent::initialize(2, kProgramId, 0, nullptr, "") != 1) {
        printf("Failed to initialize EvEvent");
        (void)fflush(stdout);
        _exit(1);
    }
    SilenceStandardOutput();
    EvDebug::Debug("main", "Starting oxelnfsd.");
    EvDebug::debugWait("oxelnfs");

    if (!RegisterService(instance)) {
        EvDebug::Debug("main", "oxelnfsd is already running");
        _exit(1);
    }
    (void)setpgrp();  // fails only for a session leader, which leads its group already
    if (BasicInit() != 1) exitOnFatalError("BasicInit");

    XoThread signalThread;
    if (!signalThread.start("SIGNAL", WaitForSignals, nullptr)) exitOnFatalError("SignalThread");
    if (!InitializeFileSystemModules()) exitOnFatalError("InitializeFileSystemModules");
    XoThread reloadThread;  // not before there are shares; a SIGHUP until then is waiting for it
    if (!reloadThread.start("RELOAD", ReloadWhenAsked, nullptr)) exitOnFatalError("ReloadThread");
    InstallControlHandlers();
    StartNotifying();
    const oxel::InstancePaths paths(instance);
    if (!oxel::StartPellService(paths.controlSocket))
        OXEL_LOG(-1, "Error: No control socket at [%s]. [%s]. oxelctl will not reach this daemon.",
                 paths.controlSocket.c_str(), strerror(errno));
    StartMetrics();

    DecideOnNetworkServices(__PRETTY_FUNCTION__);
    if (!OxelServiceGlobals::doNotStartNFSServices) {
        std::string failedStep;
        if (!StartNetworkServices(failedStep)) exitOnFatalError(failedStep);
    } else {
        OxelServiceGlobals::SetOxelStatus(OxelStarted);
    }
    if (OxelServiceGlobals::exitProcess != 0) Leave(nullptr, kIdleMs);

    EvDebug::Debug("main", "Going to acquire Korvane-oxelnfsdService Lock");
    XoNamedMutex lock("Korvane-oxelnfsdService" + instance);
    if (lock.lock())
        EvDebug::Debug("main", "Korvane-oxelnfsdService Lock acquired");
    else if (OxelServiceGlobals::exitProcess != 0)
        Leave(nullptr, kIdleMs);  // asked to stop while another process had it
    else
        OXEL_LOG(-1, "Error: No Korvane-oxelnfsdService lock. [%s]", strerror(errno));
    if (AdvancedInit() != 1) exitOnFatalError("AdvancedInit");
    RefreshStatusLine();

    while (OxelServiceGlobals::exitProcess == 0) LUSLEEP(kIdleMs);
    Leave(&lock, kIdleMs);
}
