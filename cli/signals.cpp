#include "cli/signals.h"

#include <csignal>

#include "platform/cleanup_registry.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <signal.h>
#include <unistd.h>
#endif

namespace zpdf::cli {
namespace {

#if defined(_WIN32)

BOOL WINAPI OnConsoleEvent(DWORD event) {
    switch (event) {
        case CTRL_C_EVENT:
        case CTRL_BREAK_EVENT:
        case CTRL_CLOSE_EVENT:
            fs::RemoveRegisteredFiles();
            // The status a console program ends with when Ctrl-C ends it.
            ExitProcess(STATUS_CONTROL_C_EXIT);
        default:
            return FALSE;
    }
}

#else

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

// Removes the files, then lets the signal end the process as it would have without the
// handler, so the parent sees the usual status (128 + the signal's number in a shell).
void OnSignal(int signo) {
    fs::RemoveRegisteredFiles();
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    sigemptyset(&fallback.sa_mask);
    sigaction(signo, &fallback, nullptr);
    sigset_t unblock;
    sigemptyset(&unblock);
    sigaddset(&unblock, signo);
    sigprocmask(SIG_UNBLOCK, &unblock, nullptr);
    raise(signo);
    _exit(128 + signo);  // only if the signal did not end the process
}

#endif

}  // namespace

void RemoveFilesWhenInterrupted() {
#if defined(_WIN32)
    SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
#else
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    // While one of them is handled the others wait, so the files are removed once.
    for (const int signo : kSignals) sigaddset(&action.sa_mask, signo);
    for (const int signo : kSignals) {
        // A signal the parent chose to ignore (nohup) stays ignored.
        struct sigaction current {};
        if (sigaction(signo, nullptr, &current) == 0 && current.sa_handler == SIG_IGN) continue;
        sigaction(signo, &action, nullptr);
    }
#endif
}

}  // namespace zpdf::cli
