// oltctl: runs one command on oltsim's control socket and prints the answer.
// Exit status: 0 done, 1 the command failed, 2 oltsim not reachable.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const char *USAGE =
    "usage: oltctl [-s CTL-SOCKET] COMMAND [ARGS...]\n"
    "  the socket defaults to $OLTSIM_CTL, else /var/run/oltsim.ctl; 'oltctl help' lists commands\n";

enum { TIMEOUT_MS = 5000 };

} // namespace

int main(int argc, char **argv)
{
    const char *path = std::getenv("OLTSIM_CTL");
    if (!path || !*path) path = "/var/run/oltsim.ctl";
    int i = 1;
    if (i + 1 < argc && std::strcmp(argv[i], "-s") == 0) {
        path = argv[i + 1];
        i += 2;
    }
    if (i >= argc || std::strcmp(argv[i], "-h") == 0 || std::strcmp(argv[i], "--help") == 0) {
        std::fputs(USAGE, i >= argc ? stderr : stdout);
        return i >= argc ? 2 : 0;
    }
    std::string line;
    for (; i < argc; ++i) {
        if (!line.empty()) line += ' ';
        line += argv[i];
    }
    line += '\n';

    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    if (std::strlen(path) >= sizeof sun.sun_path) {
        std::fprintf(stderr, "oltctl: socket path too long\n");
        return 2;
    }
    std::strcpy(sun.sun_path, path);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&sun), sizeof sun) < 0) {
        std::fprintf(stderr, "oltctl: cannot reach oltsim at %s: %s\n", path, std::strerror(errno));
        return 2;
    }
    if (send(fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
        std::fprintf(stderr, "oltctl: send failed: %s\n", std::strerror(errno));
        return 2;
    }
    std::string answer;
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, TIMEOUT_MS) <= 0) {
            std::fprintf(stderr, "oltctl: no answer from oltsim\n");
            return 2;
        }
        char buf[4096];
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        answer.append(buf, static_cast<std::size_t>(n));
    }
    close(fd);
    // The last line says how it went; the records come before it.
    if (!answer.empty() && answer.back() == '\n') answer.pop_back();
    std::size_t cut = answer.rfind('\n');
    std::string last = cut == std::string::npos ? answer : answer.substr(cut + 1);
    std::string body = cut == std::string::npos ? "" : answer.substr(0, cut + 1);
    std::fputs(body.c_str(), stdout);
    if (last == "ok") return 0;
    std::fprintf(stderr, "oltctl: %s\n", last.empty() ? "connection closed without an answer" : last.c_str());
    return last.rfind("error: ", 0) == 0 ? 1 : 2;
}
