// dhcpsh: the operator's shell of the dhcp daemon. It speaks the framed vty
// protocol (docs/vty-protocol.md) over the daemon's UNIX socket: commands
// from -c options, from a pipe, or typed with readline editing, history, TAB
// completion and "?" help.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <readline/history.h>
#include <readline/readline.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "lib/command.h"
#include "lib/wire.h"

namespace {

constexpr std::uint32_t RECORD_MAX = 16 * 1024 * 1024;

int g_fd = -1;
bool g_interactive;
std::string g_history;  // history file of an interactive session
std::string g_prompt;
std::vector<std::string> g_matches;

struct reply {
    int result = CMD_SUCCESS;
    bool closing = false;
};

[[noreturn]] void lost()
{
    if (g_interactive) {
        rl_deprep_terminal();
        if (!g_history.empty()) write_history(g_history.c_str());
    }
    std::fflush(stdout);
    std::fputs("% Connection to the daemon lost.\n", stderr);
    std::exit(1);
}

bool send_all(const std::string &s)
{
    size_t done = 0;
    while (done < s.size()) {
        ssize_t n = ::send(g_fd, s.data() + done, s.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool recv_all(void *buf, size_t len)
{
    auto *p = static_cast<char *>(buf);
    while (len) {
        ssize_t n = ::recv(g_fd, p, len, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// The daemon answers a session it cannot take with plain text, then closes.
[[noreturn]] void refused(std::uint8_t first)
{
    std::string text(1, static_cast<char>(first));
    char buf[512];
    ssize_t n;
    while (text.size() < 4096 && (n = ::recv(g_fd, buf, sizeof buf, 0)) > 0) text.append(buf, static_cast<size_t>(n));
    std::fprintf(stderr, "%s", text.c_str());
    std::exit(2);
}

// Sends one request and reads its output records up to the end record. The
// output goes to `collect` when given, to stdout otherwise.
reply request(char op, const std::string &line, std::string *collect = nullptr)
{
    std::uint8_t hdr[5];
    wire_writer w(hdr);
    w.u8(static_cast<std::uint8_t>(op));
    w.be32(static_cast<std::uint32_t>(line.size()));
    if (!send_all(std::string(reinterpret_cast<char *>(hdr), sizeof hdr) + line)) lost();
    static bool first = true;
    for (;;) {
        if (!recv_all(hdr, 1)) lost();
        if (hdr[0] != 'O' && hdr[0] != 'E') {
            if (first) refused(hdr[0]);
            lost();
        }
        first = false;
        std::uint32_t len;
        if (!recv_all(hdr + 1, 4) || !be32_at(hdr, 1, len) || len > RECORD_MAX) lost();
        std::string body(len, '\0');
        if (!recv_all(body.data(), len)) lost();
        if (hdr[0] == 'O') {
            if (collect) *collect += body;
            else std::fwrite(body.data(), 1, body.size(), stdout);
            continue;
        }
        bytes_view b(reinterpret_cast<const std::uint8_t *>(body.data()), body.size());
        wire_reader r(b);
        std::uint32_t result;
        std::uint8_t flags;
        if (!r.be32(result) || !r.u8(flags)) lost();
        reply rep;
        rep.result = static_cast<int>(result);
        rep.closing = flags & 1;
        if (!rep.closing) g_prompt = body.substr(r.pos());
        std::fflush(stdout);
        return rep;
    }
}

bool failed(const reply &r) { return r.result != CMD_SUCCESS && r.result != CMD_SUCCESS_DAEMON; }

char *match_generator(const char *, int state)
{
    static size_t next;
    if (state == 0) next = 0;
    return next < g_matches.size() ? strdup(g_matches[next++].c_str()) : nullptr;
}

char **complete(const char *text, int, int)
{
    rl_attempted_completion_over = 1;  // never fall back to file names
    std::string out;
    request('T', std::string(rl_line_buffer, static_cast<size_t>(rl_point)), &out);
    g_matches.clear();
    size_t pos = 0, nl;
    while ((nl = out.find('\n', pos)) != std::string::npos) {
        g_matches.push_back(out.substr(pos, nl - pos));
        pos = nl + 1;
    }
    return rl_completion_matches(text, match_generator);
}

// '?' lists what may follow the text before the cursor, then shows the line again.
int describe_key(int, int)
{
    std::string out;
    request('?', std::string(rl_line_buffer, static_cast<size_t>(rl_point)), &out);
    std::printf("\n%s", out.c_str());
    std::fflush(stdout);
    rl_on_new_line();
    return 0;
}

int interactive()
{
    g_interactive = true;
    static char breaks[] = " \t\n";
    rl_readline_name = "dhcpsh";
    rl_completer_word_break_characters = breaks;
    rl_attempted_completion_function = complete;
    rl_bind_key('?', describe_key);
    if (const char *home = std::getenv("HOME")) g_history = std::string(home) + "/.dhcpsh_history";
    stifle_history(1000);
    if (!g_history.empty()) read_history(g_history.c_str());
    for (;;) {
        char *l = readline(g_prompt.c_str());
        if (!l) {  // end of input: leave the operator's shell on a fresh line
            std::putchar('\n');
            break;
        }
        std::string line = l;
        std::free(l);
        if (line.find_first_not_of(" \t") != std::string::npos) add_history(line.c_str());
        if (request('X', line).closing) break;
    }
    if (!g_history.empty()) write_history(g_history.c_str());
    return 0;
}

void usage(const char *prog)
{
    std::fprintf(stderr, "usage: %s [-s SOCKETPATH] [-c COMMAND]...\n", prog);
}

} // namespace

int main(int argc, char **argv)
{
    const char *path = std::getenv("DHCPSH_SOCKET");
    if (!path || !*path) path = "/var/run/dhcp.vty";
    std::vector<std::string> cmds;
    int opt;
    while ((opt = getopt(argc, argv, "s:c:h")) != -1) {
        switch (opt) {
        case 's': path = optarg; break;
        case 'c': cmds.emplace_back(optarg); break;
        case 'h': usage(argv[0]); return 0;
        default: usage(argv[0]); return 2;
        }
    }

    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    if (std::strlen(path) >= sizeof sa.sun_path) {
        std::fprintf(stderr, "%s: socket path too long: %s\n", argv[0], path);
        return 2;
    }
    std::strncpy(sa.sun_path, path, sizeof sa.sun_path - 1);
    g_fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (g_fd < 0 || ::connect(g_fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) < 0) {
        std::fprintf(stderr, "%s: can't connect to the daemon at %s: %s\n", argv[0], path, std::strerror(errno));
        return 2;
    }
    request('P', "");

    if (!cmds.empty()) {
        for (auto &c : cmds) {
            reply r = request('X', c);
            if (failed(r)) return 1;
            if (r.closing) break;
        }
        return 0;
    }
    if (isatty(STDIN_FILENO)) return interactive();

    int rc = 0;
    char *buf = nullptr;
    size_t cap = 0;
    ssize_t n;
    while ((n = getline(&buf, &cap, stdin)) >= 0) {
        std::string line(buf, static_cast<size_t>(n));
        reply r = request('X', line);
        if (failed(r)) rc = 1;
        if (r.closing) break;
    }
    std::free(buf);
    return rc;
}
