// A JACK server for a test process: jackd with the dummy backend, synchronous, started by the
// constructor and stopped by its process id in the destructor. Run such tests through
// isolated.sh, so the server registers in a /dev/shm of their own.
#pragma once

#include <jack/jack.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

extern char** environ;

namespace sr::test {

class JackServer {
public:
    // Sets JACK_DEFAULT_SERVER for the clients of this process.
    JackServer(const std::string& name, unsigned period) {
        ::setenv("JACK_DEFAULT_SERVER", name.c_str(), 1);
        const std::string server = "-n" + name;
        const std::string frames = "-p" + std::to_string(period);
        const char* argv[] = {"jackd", server.c_str(), "--no-realtime", "-S",   "-d",
                              "dummy", "-r48000",      frames.c_str(),  nullptr};
        if (posix_spawnp(&pid, "jackd", nullptr, nullptr, const_cast<char**>(argv), environ) != 0)
            pid = -1;
    }
    ~JackServer() {
        using namespace std::chrono_literals;
        if (pid <= 0) return;
        ::kill(pid, SIGTERM);
        for (int i = 0; i < 100; ++i) {
            if (::waitpid(pid, nullptr, WNOHANG) == pid) return;
            std::this_thread::sleep_for(100ms);
        }
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    JackServer(const JackServer&) = delete;
    JackServer& operator=(const JackServer&) = delete;

    bool started() const { return pid > 0; }

    // A client of the server, waiting up to 10 s for it to come up; null if it does not.
    static jack_client_t* openClient(const char* name) {
        using namespace std::chrono_literals;
        for (int i = 0; i < 100; ++i) {
            jack_status_t status{};
            if (jack_client_t* client = jack_client_open(name, JackNoStartServer, &status))
                return client;
            std::this_thread::sleep_for(100ms);
        }
        return nullptr;
    }

private:
    pid_t pid = -1;
};

} // namespace sr::test
