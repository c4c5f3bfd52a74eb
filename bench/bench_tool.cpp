// SPDX-License-Identifier: MIT
// How long the command-line tool takes to start and to end, against programs that do the least.
#include "netns.h"
#include "ratio.h"
#include "udpecho.h"

#include <QFile>
#include <QTemporaryDir>

#include <cstring>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

namespace
{

using Arguments = std::vector<const char*>;

constexpr double ms = 1e-3;

pid_t start(const Arguments& arguments)
{
    std::vector<char*> copies;
    for (const char* argument : arguments) {
        copies.push_back(const_cast<char*>(argument));
    }
    copies.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t id = 0;
    const int error = posix_spawnp(&id, copies.front(), &actions, nullptr, copies.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        std::fprintf(stderr, "bench_tool: %s: %s\n", copies.front(), std::strerror(error));
        std::exit(1);
    }
    return id;
}

int codeOf(pid_t id)
{
    int status = 0;
    waitpid(id, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void require(int code, const char* what)
{
    if (code != 0) {
        std::fprintf(stderr, "bench_tool: %s ended with code %d\n", what, code);
        std::exit(1);
    }
}

template <class Function>
double secondsOf(Function&& function)
{
    return ratio::secondsPerCall(function, 1);
}

void print(const char* what, double tool, double baseline, double allowed)
{
    ratio::record(what, 0, tool / ms, baseline / ms, "ms");
    std::printf("%-46s %8.2f ms, baseline %8.2f ms: %8.2f ms more, %6.2f times its time (goal: "
                "at most %.0f ms more)\n",
                what, tool / ms, baseline / ms, (tool - baseline) / ms, tool / baseline,
                allowed / ms);
}

// Against a small program that prints its help, and what the Qt libraries add to one that does
// nothing.
void starts()
{
    constexpr int rounds = 41;
    const std::vector<Arguments> programs{{"candump", "--help"},
                                          {"true"},
                                          {MINIMAL_QT},
                                          {COREMANAGE, "--help"},
                                          {COREMANAGE, "encode", "--cmd", "0x8b"}};
    std::vector<std::vector<double>> times(programs.size());
    for (int i = 0; i < rounds; ++i) { // in turns
        for (std::size_t at = 0; at < programs.size(); ++at) {
            times[at].push_back(secondsOf([&] { codeOf(start(programs[at])); }));
        }
    }
    const auto median = [&times](std::size_t at) { return ratio::percentile(times[at], 0.5); };
    const double baseline = median(0) + median(2) - median(1);
    constexpr double allowed = 30 * ms;
    print("coremanage --help, to candump --help and Qt", median(3), baseline, allowed);
    print("coremanage encode, to candump --help and Qt", median(4), baseline, allowed);
}

// The device of one command: tells how long the program goes on after the answer.
class Answerer
{
public:
    Answerer() : descriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = udpecho::loopback(0);
        socklen_t length = sizeof address;
        require(bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), "bind");
        getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
        port = std::to_string(ntohs(address.sin_port));
    }
    ~Answerer() { close(descriptor); }
    Answerer(const Answerer&) = delete;
    Answerer& operator=(const Answerer&) = delete;

    double secondsAfterReply(const Arguments& program) const
    {
        const pid_t id = start(program);
        char buffer[64];
        sockaddr_in from{};
        socklen_t length = sizeof from;
        recvfrom(descriptor, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &length);
        return secondsOf([&] {
            sendto(descriptor, udpecho::reply, sizeof udpecho::reply - 1, 0,
                   reinterpret_cast<sockaddr*>(&from), length);
            require(codeOf(id), program.front());
        });
    }

    std::string port;

private:
    int descriptor;
};

void ends()
{
    constexpr int rounds = 41;
    const Answerer device;
    const std::string link = "udp://127.0.0.1:" + device.port;
    std::vector<double> tool;
    std::vector<double> bare;
    for (int i = 0; i < rounds; ++i) { // in turns
        tool.push_back(
            device.secondsAfterReply({COREMANAGE, "send", link.c_str(), "--cmd", "0x8c"}));
        bare.push_back(device.secondsAfterReply({MINIMAL_QT, device.port.c_str()}));
    }
    constexpr double allowed = 10 * ms;
    print("send, from the reply to its end, to a Qt socket", ratio::percentile(tool, 0.5),
          ratio::percentile(bare, 0.5), allowed);
    std::printf("%-46s %8.2f ms (goal: %.0f or less)\n", "    by itself",
                ratio::percentile(tool, 0.5) / ms, allowed / ms);
}

// Ten thousand commands from a file, against a bare socket that asks the same device as often.
void manyCommands(const QString& directory)
{
    constexpr int many = 10000;
    constexpr int rounds = 5;
    const std::string path = (directory + QStringLiteral("/commands.csv")).toStdString();
    QFile file(QString::fromStdString(path));
    file.open(QIODevice::WriteOnly);
    file.write("cmd,dat1\n");
    for (int i = 0; i < many; ++i) {
        file.write("0x8c," + QByteArray::number(i & 0xff) + '\n');
    }
    file.close();
    const UdpEcho echo;
    const std::string link = "udp://127.0.0.1:" + std::to_string(echo.port);
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in device = udpecho::loopback(echo.port);
    std::vector<double> tool;
    std::vector<double> bare;
    for (int i = 0; i < rounds; ++i) { // in turns
        tool.push_back(secondsOf([&] {
            require(codeOf(start({COREMANAGE, "send", link.c_str(), "--file", path.c_str()})),
                    "send --file");
        }));
        bare.push_back(secondsOf([&] {
            for (int sent = 0; sent < many; ++sent) {
                char buffer[64] = {};
                sendto(descriptor, buffer, sizeof udpecho::reply - 1, 0,
                       reinterpret_cast<const sockaddr*>(&device), sizeof device);
                recv(descriptor, buffer, sizeof buffer, 0);
            }
        }));
    }
    close(descriptor);
    constexpr double allowed = 2;
    print("10,000 commands of a file, to a bare socket", ratio::percentile(tool, 0.5),
          ratio::percentile(bare, 0.5), allowed);
}

} // namespace

int main()
{
    if (!netns::isolate()) {
        std::fprintf(stderr, "no network namespace of its own: port 5104 must be free\n");
    }
    const QTemporaryDir directory;
    qputenv("HOME", directory.path().toLocal8Bit()); // for the log
    starts();
    ends();
    manyCommands(directory.path());
    return 0;
}
