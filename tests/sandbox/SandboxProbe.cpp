// A plugin program for the sandbox tests. Started chrooted in its data
// directory, it reports what it can reach from there into /tmp/probe-report
// (written whole, then renamed) and runs until it is stopped. It keeps a file
// of the USB disk open, if it sees one, so that the disk's mount is busy.
// Its last line is its own process id.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

namespace {

bool canRead(const char* path) {
    return access(path, R_OK) == 0;
}

// "refused" when creating a file in `folder` fails because it is read-only.
std::string writeAttempt(const char* folder) {
    const std::string path = std::string(folder) + "/probe-write";
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
    if (fd >= 0) {
        close(fd);
        unlink(path.c_str());
        return "allowed";
    }
    return errno == EROFS ? "refused" : "failed";
}

}  // namespace

int main() {
    const int usbFile = open("/extdisks/sda1/movie", O_RDONLY);
    std::string report;
    report += std::string("userdata ") + (canRead("/userdata/data/Share/welcome.txt") ? "sees" : "none") + "\n";
    report += std::string("proc ") + (canRead("/proc/self/status") ? "sees" : "none") + "\n";
    report += std::string("usb ") + (usbFile >= 0 ? "sees" : "none") + "\n";
    report += "lib " + writeAttempt("/lib") + "\n";
    report += std::string("appdata ") + (canRead("/userdata/appdata/app_infos") ? "sees" : "hidden") + "\n";
    report += "pid " + std::to_string(getpid()) + "\n";
    FILE* out = std::fopen("/tmp/probe-report.part", "w");
    if (!out) {
        return 1;
    }
    std::fputs(report.c_str(), out);
    std::fclose(out);
    std::rename("/tmp/probe-report.part", "/tmp/probe-report");
    for (;;) {
        pause();
    }
}
