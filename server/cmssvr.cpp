// The CMS server daemon: reads ./config/, loads the catalogue from the database and
// serves until SIGINT or SIGTERM.
#include <linux/reboot.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "comm/globle.h"
#include "comm/sysutil.h"
#include "mysql/spool.h"
#include "server/CmsSvrDlg.h"

namespace {

void WriteLine(const char* text) {
    // Only async-signal-safe calls here.
    ssize_t n = write(STDOUT_FILENO, text, std::strlen(text));
    (void)n;
}

void progSingle(int signal) {
    switch (signal) {
        case SIGINT:
            bKillProg = 1;
            WriteLine("sigint prog exit\n");
            break;
        case SIGPIPE:
            WriteLine("socket close\n");
            break;
        case SIGKILL:
        case SIGSEGV:
        case SIGTERM:
            bKillProg = 1;
            break;
        default:
            break;
    }
}

// A SIGSEGV sent by kill ends the main loop like SIGTERM. A real fault cannot be returned
// from (the faulting instruction would run again for ever): it is reported and the default
// action ends the process, so that a core dump shows where it happened.
void OnSegv(int signal, siginfo_t* info, void*) {
    if (info && info->si_code <= 0) return progSingle(signal);  // SI_USER, SI_TKILL, SI_QUEUE
    WriteLine("segmentation fault: ending with a core dump\n");
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigaction(SIGSEGV, &dfl, nullptr);
    raise(SIGSEGV);  // delivered as the handler returns
}

void InstallSignals() {
    signal(SIGINT, progSingle);
    signal(SIGKILL, progSingle);  // refused by the system; harmless
    struct sigaction segv {};
    segv.sa_sigaction = OnSegv;
    segv.sa_flags = SA_SIGINFO;
    sigemptyset(&segv.sa_mask);
    sigaction(SIGSEGV, &segv, nullptr);
    signal(SIGTERM, progSingle);
    signal(SIGPIPE, SIG_IGN);
}

// Test hook: CMS_TEST_FAULT=segv makes the server fault for real once its signals are
// installed, so the fault path can be checked end to end.
void FaultIfAsked() {
    const char* what = getenv("CMS_TEST_FAULT");
    if (!what || std::strcmp(what, "segv") != 0) return;
    volatile int* nowhere = nullptr;
    *nowhere = 1;
}

// With CMS_NO_REBOOT set, reboot and power-off requests are printed instead of carried
// out, so that tests and trial runs can exercise them on a machine that must stay up.
int PrintReboot(int cmd) {
    printf("reboot skipped (CMS_NO_REBOOT): %s\n",
           cmd == LINUX_REBOOT_CMD_POWER_OFF ? "power off" : "restart");
    return 0;
}

void PrintUsage() {
    puts(
        "usage: cmssvr [--help] [--version]\n"
        "\n"
        "Central management server. Run it from the directory that holds config/:\n"
        "  config/cmslocal.xml  message port, HTTP port, serial\n"
        "  config/cmsparam.xml  database connection and file-store roots\n"
        "  config/dev.xml       device RTSP URL templates (optional)\n"
        "It retries the database once a second until the catalogue loads, then opens\n"
        "its ports. SIGINT or SIGTERM ends it. Other arguments are ignored.\n"
        "With CMS_NO_REBOOT set in the environment, reboot and power-off commands are\n"
        "printed instead of carried out.");
}

constexpr const char* kVersion = "cmssvr 1.0";

}  // namespace

int main(int argc, char** argv) {
    // Anything else on the command line is ignored: the server takes its settings from
    // config/ alone.
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            PrintUsage();
            return 0;
        }
        if (std::strcmp(argv[i], "--version") == 0) {
            puts(kVersion);
            return 0;
        }
    }
    // Progress lines must reach a pipe or log file as they happen.
    setvbuf(stdout, nullptr, _IOLBF, 0);

    InstallSignals();
    FaultIfAsked();
    if (getenv("CMS_NO_REBOOT")) SetRebootFunc(PrintReboot);
    puts("cserver startup");

    CCMSSvrDlg dlg;
    dlg.InitSDK();
    dlg.InitSystem();
    puts("InitSystem succ");
    // Events spooled by an earlier run are written before anything newer.
    spool::Configure("",
                     m_cfgCms.nSpoolMB > 0 ? static_cast<uint64_t>(m_cfgCms.nSpoolMB) << 20 : 0);
    spool::Resume();
    while (!bKillProg) {
        dlg.LoopOnce();
        if (bKillProg) break;
        usleep(1000000);  // a signal cuts the sleep short
    }
    return 0;
}
