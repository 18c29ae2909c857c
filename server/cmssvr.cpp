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

// With CMS_NO_REBOOT set, reboot and power-off requests are printed instead of carried
// out, so that tests and trial runs can exercise them on a machine that must stay up.
int PrintReboot(int cmd) {
    printf("reboot skipped (CMS_NO_REBOOT): %s\n",
           cmd == LINUX_REBOOT_CMD_POWER_OFF ? "power off" : "restart");
    return 0;
}

void PrintUsage() {
    puts(
        "usage: cmssvr [--help]\n"
        "\n"
        "Central management server. Run it from the directory that holds config/:\n"
        "  config/cmslocal.xml  message port, HTTP port, serial\n"
        "  config/cmsparam.xml  database connection and file-store roots\n"
        "  config/dev.xml       device RTSP URL templates (optional)\n"
        "It retries the database once a second until the catalogue loads, then opens\n"
        "its ports. SIGINT or SIGTERM ends it.\n"
        "With CMS_NO_REBOOT set in the environment, reboot and power-off commands are\n"
        "printed instead of carried out.");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        PrintUsage();
        return std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0 ? 0 : 2;
    }
    // Progress lines must reach a pipe or log file as they happen.
    setvbuf(stdout, nullptr, _IOLBF, 0);

    signal(SIGINT, progSingle);
    signal(SIGKILL, progSingle);  // refused by the system; harmless
    signal(SIGSEGV, progSingle);
    signal(SIGTERM, progSingle);
    signal(SIGPIPE, SIG_IGN);
    if (getenv("CMS_NO_REBOOT")) SetRebootFunc(PrintReboot);
    puts("cserver startup");

    CCMSSvrDlg dlg;
    dlg.InitSDK();
    dlg.InitSystem();
    puts("InitSystem succ");
    while (!bKillProg) {
        dlg.LoopOnce();
        if (bKillProg) break;
        usleep(1000000);  // a signal cuts the sleep short
    }
    return 0;
}
