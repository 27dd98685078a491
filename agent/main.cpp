#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "agent/Watchpost.h"

int main(int argc, char** argv) {
    // A file must not become what others take for standard input, output or error.
    while (true) {
        const int file = open("/dev/null", O_RDWR);
        if (file > STDERR_FILENO || file < 0) {
            close(file);
            break;
        }
    }
    Watchpost application;
    return application.Launch(std::vector<std::string>(argv, argv + argc));
}
