// SPDX-License-Identifier: Apache-2.0
//
// What the base library does once in a process or between processes, one scenario a run; started by
// base_tests. The instance is "Test001" below OXEL_ROOT.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "base/event_log.h"
#include "base/instance.h"
#include "base/log.h"
#include "base/store.h"

// Until the test closes its end.
static void WaitForEndOfInput() {
    char c;
    while (read(STDIN_FILENO, &c, 1) == 1) {
    }
}

static int Events() {
    EvDebug::Debug("main", "Starting %s.", "oxel\nnfsd");
    if (BasicInit() != 1) return 1;
    EvDebug::Debug("main", "Running.");
    return 0;
}

static int Usage() {
    EvDebug::Debug("PrintUsage", "Usage: oxelnfsd -cn <clientname> -vm <Instance>");
    return 1;
}

static int FatalError() {
    EvEvent event;
    event.MajorEvent(0x5B0000E7, 0, 256);
    EvDebug::Error("BasicInit", "Fatal");
    return 1;
}

static int CheckIn() {
    printf("%d\n", uxsvc_checkin("oxelnfsd") != 0 ? 1 : 0);
    fflush(stdout);
    WaitForEndOfInput();
    return 0;
}

static int StartTime() {
    if (uxsvc_checkin("oxelnfsd") == 0) return 1;
    printf("%u\n", oxel::NewStartTime());
    return 0;
}

static int Lock(const char* name) {
    XoNamedMutex mutex(name);
    printf("%d\n", mutex.lock() ? 1 : 0);
    fflush(stdout);
    WaitForEndOfInput();
    return 0;
}

static int Initialise() {
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 100;
    limit.rlim_max = 200;
    setrlimit(RLIMIT_NOFILE, &limit);
    const int result = BasicInit();
    getrlimit(RLIMIT_NOFILE, &limit);
    struct sigaction action;
    sigaction(SIGPIPE, nullptr, &action);
    printf("%d descriptors %lu sigpipe %s level %d\n", result, limit.rlim_cur,
           action.sa_handler == SIG_IGN ? "ignored" : "kills", oxel::LogWriter::Level());
    return 0;
}

int main(int argc, char** argv) {
    XOPI_Focus::setFocus("Test001");
    const char* scenario = argc > 1 ? argv[1] : "";
    if (strcmp(scenario, "events") == 0) return Events();
    if (strcmp(scenario, "usage") == 0) return Usage();
    if (strcmp(scenario, "fatal") == 0) return FatalError();
    if (strcmp(scenario, "checkin") == 0) return CheckIn();
    if (strcmp(scenario, "start-time") == 0) return StartTime();
    if (strcmp(scenario, "lock") == 0 && argc > 2) return Lock(argv[2]);
    if (strcmp(scenario, "initialise") == 0) return Initialise();
    return 2;
}
