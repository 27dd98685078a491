#include <fcntl.h>
#include <openssl/crypto.h>
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
    // A thread that waits for a name server is left alone at a stop, and may still be at work when
    // the process ends: the library is not to be torn down under it.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    Watchpost application;
    return application.Launch(std::vector<std::string>(argv, argv + argc));
}
