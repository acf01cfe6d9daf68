// Writes its arguments to syslog, one record each, as the daemon would.

#include <syslog.h>

int main(int argc, char *argv[]) {
    openlog("client", LOG_NDELAY, LOG_DAEMON);
    for (int i = 1; i < argc; ++i) {
        syslog(LOG_WARNING, "%s", argv[i]);
    }
    return 0;
}
