// Appends a login or the end of one to the accounting file, the way the system's own programs do.
//
// usage: wtmp_writer login|logout LINE USER HOST EPOCH

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utmp.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

template <std::size_t Size>
void Fill(char (&field)[Size], const char* text) {
    std::memcpy(field, text, strnlen(text, Size));
}

}  // namespace

int main(int argc, char** argv) {
    const std::string kind = argc == 6 ? argv[1] : "";
    if (kind != "login" && kind != "logout") {
        std::fprintf(stderr, "usage: wtmp_writer login|logout LINE USER HOST EPOCH\n");
        return 64;
    }
    utmp entry = {};
    entry.ut_type = kind == "login" ? USER_PROCESS : DEAD_PROCESS;
    entry.ut_pid = getppid();
    Fill(entry.ut_line, argv[2]);
    Fill(entry.ut_user, argv[3]);
    Fill(entry.ut_host, argv[4]);
    entry.ut_tv.tv_sec = static_cast<std::int32_t>(std::strtol(argv[5], nullptr, 10));

    // The system's writer adds to an existing file only, and says nothing of success.
    const int file = open("/var/log/wtmp", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    struct stat before = {};
    struct stat after = {};
    if (file < 0 || fstat(file, &before) != 0) {
        std::perror("/var/log/wtmp");
        return 73;
    }
    updwtmp("/var/log/wtmp", &entry);
    const bool grown = fstat(file, &after) == 0 && after.st_size > before.st_size;
    close(file);
    if (!grown) {
        std::fprintf(stderr, "/var/log/wtmp: nothing was written\n");
        return 74;
    }
    return 0;
}
