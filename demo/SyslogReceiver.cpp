// syslog_receiver [ADDRESS:]PORT...: prints each datagram that arrives there, on 127.0.0.1 without
// an address, as "PORT TEXT", one a line.

#include <Poco/Exception.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Timespan.h>

#include <iostream>
#include <string>

int main(int argc, char** argv) {
    using Poco::Net::Socket;
    try {
        Socket::SocketList servers;
        for (int i = 1; i < argc; ++i) {
            const std::string place = argv[i];
            servers.push_back(Poco::Net::DatagramSocket(Poco::Net::SocketAddress(
                place.find(':') == std::string::npos ? "127.0.0.1:" + place : place)));
        }
        if (servers.empty()) {
            std::cerr << "usage: syslog_receiver [ADDRESS:]PORT..." << std::endl;
            return 64;
        }
        for (;;) {
            Socket::SocketList readable = servers;
            Socket::SocketList writable;
            Socket::SocketList failed;
            Socket::select(readable, writable, failed, Poco::Timespan(1, 0));
            for (const Socket& ready : readable) {
                char text[65536];
                Poco::Net::DatagramSocket server(ready);
                const int length = server.receiveBytes(text, sizeof(text));
                std::string message(text, static_cast<std::size_t>(length));
                if (!message.empty() && message.back() == '\n') {
                    message.pop_back();  // some daemons send it, some do not
                }
                std::cout << server.address().port() << ' ' << message << std::endl;
            }
        }
    } catch (const Poco::Exception& e) {
        std::cerr << "syslog_receiver: " << e.displayText() << std::endl;
        return 1;
    }
}
