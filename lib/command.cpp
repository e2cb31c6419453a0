// Command engine: grammar matching per node, help and completion, config
// writers, and the startup configuration file.
#include "lib/command.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sys/utsname.h>
#include <unistd.h>

#include "lib/log.h"
#include "lib/vty.h"

namespace {

enum token_kind { TK_KEYWORD, TK_ALT, TK_VARIABLE, TK_RANGE, TK_IPV4, TK_IPV4_PREFIX, TK_IPV6,
                  TK_IPV6_PREFIX, TK_MAC };

// How well a typed word fits a token; at every position the best kind wins.
enum { M_NONE, M_PARTIAL, M_VARIABLE, M_TYPED, M_EXACT };

struct cmd_token {
    token_kind kind = TK_KEYWORD;
    std::string text;                // as written in the grammar
    std::vector<std::string> words;  // the keyword, or the alternative's members
    long long min = 0, max = 0;
    std::string help;
};

struct cmd_entry {
    const cmd_element *el;
    std::vector<cmd_token> tokens;
};

struct node_info {
    const cmd_node *node = nullptr;
    config_write_fn writer = nullptr;
    std::vector<cmd_entry> cmds;
};

std::array<node_info, NODE_TYPE_MAX> g_nodes;
std::string g_hostname;
bool g_hostname_configured = false;
std::string g_config_file;

std::vector<std::string> split(const std::string &s, const char *seps)
{
    std::vector<std::string> out;
    size_t pos = 0;
    while ((pos = s.find_first_not_of(seps, pos)) != std::string::npos) {
        size_t end = s.find_first_of(seps, pos);
        out.push_back(s.substr(pos, end - pos));
        pos = end;
    }
    return out;
}

std::vector<std::string> help_lines(const char *doc)
{
    std::vector<std::string> out;
    std::string s = doc ? doc : "";
    size_t pos = 0;
    while (pos < s.size()) {
        size_t end = s.find('\n', pos);
        if (end == std::string::npos) end = s.size();
        out.push_back(s.substr(pos, end - pos));
        pos = end + 1;
    }
    return out;
}

bool only(const std::string &w, const char *chars) { return w.find_first_not_of(chars) == std::string::npos; }

bool parse_uint(const std::string &w, size_t max_digits, long long &v)
{
    if (w.empty() || w.size() > max_digits || !only(w, "0123456789")) return false;
    v = std::strtoll(w.c_str(), nullptr, 10);
    return true;
}

bool match_ipv4(const std::string &w)
{
    auto parts = split(w, ".");
    if (parts.size() != 4 || w.front() == '.' || w.back() == '.' || w.find("..") != std::string::npos)
        return false;
    long long v;
    for (auto &p : parts)
        if (!parse_uint(p, 3, v) || v > 255) return false;
    return true;
}

bool match_ipv6(const std::string &w)
{
    in6_addr a;
    return inet_pton(AF_INET6, w.c_str(), &a) == 1;
}

// "address/len" with the address checked by `addr` and len in 0..maxlen.
bool match_prefix(const std::string &w, bool (*addr)(const std::string &), long long maxlen)
{
    size_t slash = w.find('/');
    long long len;
    return slash != std::string::npos && addr(w.substr(0, slash)) &&
           parse_uint(w.substr(slash + 1), 3, len) && len <= maxlen;
}

bool match_mac(const std::string &w)
{
    if (w.size() != 14 || w[4] != '-' || w[9] != '-') return false;
    for (size_t i = 0; i < w.size(); ++i)
        if (i != 4 && i != 9 && !std::isxdigit(static_cast<unsigned char>(w[i]))) return false;
    return true;
}

// Whether a partly typed word can still become a value of the token (for "?").
bool could_match(const cmd_token &t, const std::string &w)
{
    switch (t.kind) {
    case TK_RANGE: return only(w, "0123456789");
    case TK_IPV4: return only(w, "0123456789.");
    case TK_IPV4_PREFIX: return only(w, "0123456789./");
    case TK_IPV6: return only(w, "0123456789abcdefABCDEF:.");
    case TK_IPV6_PREFIX: return only(w, "0123456789abcdefABCDEF:./");
    case TK_MAC: return only(w, "0123456789abcdefABCDEF-");
    default: return true;
    }
}

// Returns the match level; kw gets the keyword a prefix stands for, ambig is
// set when it stands for several members of an alternative.
int match_token(const cmd_token &t, const std::string &w, std::string &kw, bool &ambig)
{
    long long v;
    switch (t.kind) {
    case TK_KEYWORD:
    case TK_ALT: {
        int prefixes = 0;
        for (auto &m : t.words) {
            if (m == w) { kw = m; return M_EXACT; }
            if (m.starts_with(w)) { kw = m; ++prefixes; }
        }
        ambig = prefixes > 1;
        return prefixes ? M_PARTIAL : M_NONE;
    }
    case TK_VARIABLE: return M_VARIABLE;
    case TK_RANGE: return parse_uint(w, 18, v) && v >= t.min && v <= t.max ? M_TYPED : M_NONE;
    case TK_IPV4: return match_ipv4(w) ? M_TYPED : M_NONE;
    case TK_IPV4_PREFIX: return match_prefix(w, match_ipv4, 32) ? M_TYPED : M_NONE;
    case TK_IPV6: return match_ipv6(w) ? M_TYPED : M_NONE;
    case TK_IPV6_PREFIX: return match_prefix(w, match_ipv6, 128) ? M_TYPED : M_NONE;
    case TK_MAC: return match_mac(w) ? M_TYPED : M_NONE;
    }
    return M_NONE;
}

cmd_token make_token(const std::string &w)
{
    cmd_token t;
    t.text = w;
    t.words = {w};
    bool upper = std::any_of(w.begin(), w.end(), ::isupper) && !std::any_of(w.begin(), w.end(), ::islower);
    if (w.size() > 2 && w.front() == '(' && w.back() == ')') {
        t.kind = TK_ALT;
        t.words = split(w.substr(1, w.size() - 2), "|");
    } else if (w.size() > 2 && w.front() == '<' && w.back() == '>' &&
               std::sscanf(w.c_str(), "<%lld-%lld>", &t.min, &t.max) == 2) {
        t.kind = TK_RANGE;
    } else if (w == "A.B.C.D") t.kind = TK_IPV4;
    else if (w == "A.B.C.D/M") t.kind = TK_IPV4_PREFIX;
    else if (w == "X:X::X:X") t.kind = TK_IPV6;
    else if (w == "X:X::X:X/M") t.kind = TK_IPV6_PREFIX;
    else if (w == "MMMM-MMMM-MMMM") t.kind = TK_MAC;
    else if (upper) t.kind = TK_VARIABLE;
    return t;
}

struct candidate {
    const cmd_entry *e;
    std::vector<int> level;
    std::vector<std::string> kw;
    bool ambig = false;
};

// Keeps the node's commands whose first `count` tokens take the words, and at
// every position only those with the best kind of match. Returns CMD_SUCCESS,
// CMD_ERR_NO_MATCH or CMD_ERR_AMBIGUOUS (a prefix standing for two keywords).
int filter(node_type node, const std::vector<std::string> &w, size_t count, std::vector<candidate> &out)
{
    out.clear();
    for (auto &e : g_nodes[node].cmds) {
        if (e.tokens.size() < count) continue;
        candidate c{&e, {}, {}};
        bool ok = true;
        for (size_t i = 0; ok && i < count; ++i) {
            std::string kw;
            bool ambig = false;
            int l = match_token(e.tokens[i], w[i], kw, ambig);
            ok = l != M_NONE;
            c.level.push_back(l);
            c.kw.push_back(kw);
            c.ambig |= ambig && l == M_PARTIAL;
        }
        if (ok) out.push_back(std::move(c));
    }
    for (size_t i = 0; i < count && !out.empty(); ++i) {
        int best = M_NONE;
        for (auto &c : out) best = std::max(best, c.level[i]);
        std::erase_if(out, [&](const candidate &c) { return c.level[i] < best; });
        if (best != M_PARTIAL) continue;
        std::set<std::string> kws;
        for (auto &c : out) kws.insert(c.kw[i]);
        if (kws.size() > 1) return CMD_ERR_AMBIGUOUS;
    }
    for (auto &c : out)
        if (c.ambig) return CMD_ERR_AMBIGUOUS;
    return out.empty() ? CMD_ERR_NO_MATCH : CMD_SUCCESS;
}

struct resolved {
    int status;
    const cmd_entry *e = nullptr;
    std::vector<std::string> argv;
};

resolved resolve(node_type node, const std::vector<std::string> &w)
{
    std::vector<candidate> c;
    int r = filter(node, w, w.size(), c);
    if (r != CMD_SUCCESS) return {r, nullptr, {}};
    const candidate *hit = nullptr;
    int complete = 0;
    for (auto &x : c)
        if (x.e->tokens.size() == w.size()) { hit = &x; ++complete; }
    if (complete == 0) return {CMD_ERR_INCOMPLETE, nullptr, {}};
    if (complete > 1) return {CMD_ERR_AMBIGUOUS, nullptr, {}};
    resolved res{CMD_SUCCESS, hit->e, {}};
    for (size_t i = 0; i < w.size(); ++i)
        if (hit->e->tokens[i].kind != TK_KEYWORD) res.argv.push_back(w[i]);
    return res;
}

int run(vty *vty, node_type node, const resolved &r)
{
    // A command found in the parent node moves the session there.
    vty->node = node;
    std::vector<const char *> argv;
    for (auto &a : r.argv) argv.push_back(a.c_str());
    argv.push_back(nullptr);
    return r.e->el->func(r.e->el, vty, static_cast<int>(r.argv.size()), argv.data());
}

bool is_success(int ret) { return ret == CMD_SUCCESS || ret == CMD_SUCCESS_DAEMON; }

int execute_words(vty *vty, const std::vector<std::string> &w)
{
    resolved r = resolve(vty->node, w);
    if (r.status == CMD_SUCCESS) return run(vty, vty->node, r);
    if (vty->node > CONFIG_NODE) {
        resolved p = resolve(CONFIG_NODE, w);
        if (p.status == CMD_SUCCESS) {
            node_type node = vty->node;
            void *index = vty->index;
            long sub = vty->index_sub;
            int ret = run(vty, CONFIG_NODE, p);
            if (!is_success(ret) && ret != CMD_WARNING && vty->node == CONFIG_NODE) {
                vty->node = node;
                vty->index = index;
                vty->index_sub = sub;
            }
            return ret;
        }
    }
    if (r.status == CMD_ERR_AMBIGUOUS) vty_out(vty, "%% Ambiguous command.%s", VTY_NEWLINE);
    else if (r.status == CMD_ERR_INCOMPLETE) vty_out(vty, "%% Command incomplete.%s", VTY_NEWLINE);
    else vty_out(vty, "%% Unknown command.%s", VTY_NEWLINE);
    return r.status;
}

using help_list = std::vector<std::pair<std::string, std::string>>;

// The tokens that may follow the line (or complete its last, partly typed word).
int next_tokens(node_type node, const std::string &line, bool keywords_only, help_list &items)
{
    auto w = split(line, " \t");
    bool partial = !line.empty() && !std::isblank(static_cast<unsigned char>(line.back()));
    if (node >= CONFIG_NODE && !w.empty() && w[0] == "do" && (w.size() > 1 || !partial)) {
        size_t rest = line.find("do") + 2;
        return next_tokens(ENABLE_NODE, line.substr(rest), keywords_only, items);
    }
    size_t count = partial ? w.size() - 1 : w.size();
    std::vector<candidate> c;
    int r = filter(node, w, count, c);
    if (r != CMD_SUCCESS) return r;
    bool cr = false;
    for (auto &x : c) {
        if (x.e->tokens.size() == count) { cr = !partial; continue; }
        const cmd_token &t = x.e->tokens[count];
        if (t.kind == TK_KEYWORD || t.kind == TK_ALT) {
            for (auto &m : t.words)
                if (!partial || m.starts_with(w.back())) items.emplace_back(m, t.help);
        } else if (!keywords_only && (!partial || could_match(t, w.back()))) {
            items.emplace_back(t.text, t.help);
        }
    }
    std::stable_sort(items.begin(), items.end(), [](auto &a, auto &b) { return a.first < b.first; });
    items.erase(std::unique(items.begin(), items.end(), [](auto &a, auto &b) { return a.first == b.first; }),
                items.end());
    if (cr && !keywords_only) items.emplace_back("<cr>", "");
    return items.empty() ? CMD_ERR_NO_MATCH : CMD_SUCCESS;
}

void write_config(vty *vty)
{
    vty_out(vty, "!%s", VTY_NEWLINE);
    if (g_hostname_configured) vty_out(vty, "hostname %s%s!%s", g_hostname.c_str(), VTY_NEWLINE, VTY_NEWLINE);
    for (auto &n : g_nodes)
        if (n.writer) n.writer(vty);
    vty_out(vty, "end%s", VTY_NEWLINE);
}

bool write_all(int fd, const std::string &s)
{
    size_t done = 0;
    while (done < s.size()) {
        ssize_t n = ::write(fd, s.data() + done, s.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// Written beside the target and renamed over it, so a crash never leaves a
// half-written startup configuration.
bool save_config(const std::string &path)
{
    if (path.empty()) return false;
    vty *buf = vty_new_buffer(CONFIG_NODE);
    write_config(buf);
    std::string tmp = path + ".XXXXXX";
    int fd = mkstemp(tmp.data());
    bool ok = fd >= 0 && write_all(fd, buf->out) && fsync(fd) == 0;
    if (fd >= 0) ok = ::close(fd) == 0 && ok;
    ok = ok && std::rename(tmp.c_str(), path.c_str()) == 0;
    if (!ok && fd >= 0) ::unlink(tmp.c_str());
    vty_free(buf);
    return ok;
}

DEFUN(config_exit, config_exit_cmd, "exit", "Exit current mode and down to previous mode\n")
{
    if (vty->node <= ENABLE_NODE) {
        vty->close_requested = true;
        return CMD_SUCCESS;
    }
    vty->node = node_parent(vty->node);
    if (vty->node <= CONFIG_NODE) {
        vty->index = nullptr;
        vty->index_sub = 0;
    }
    return CMD_SUCCESS;
}

ALIAS(config_exit, config_quit_cmd, "quit", "Exit current mode and down to previous mode\n")

DEFUN(config_end, config_end_cmd, "end", "End current mode and change to enable mode\n")
{
    vty->node = ENABLE_NODE;
    vty->index = nullptr;
    vty->index_sub = 0;
    return CMD_SUCCESS;
}

DEFUN(config_terminal, config_terminal_cmd, "configure terminal",
      "Configuration from vty interface\nConfiguration terminal\n")
{
    vty->node = CONFIG_NODE;
    return CMD_SUCCESS;
}

DEFUN(show_running_config, show_running_config_cmd, "show running-config",
      "Show running system information\nCurrent operating configuration\n")
{
    cmd_write_running_config(vty);
    return CMD_SUCCESS;
}

DEFUN(write_memory, write_memory_cmd, "write memory",
      "Write running configuration to memory, network, or terminal\nWrite configuration to the file\n")
{
    const char *path = cmd_config_file();
    if (!save_config(path)) {
        vty_out(vty, "%% Can't open configuration file %s.%s", path, VTY_NEWLINE);
        return CMD_WARNING;
    }
    vty_out(vty, "Configuration saved to %s%s[OK]%s", path, VTY_NEWLINE, VTY_NEWLINE);
    return CMD_SUCCESS;
}

ALIAS(write_memory, write_file_cmd, "write file",
      "Write running configuration to memory, network, or terminal\nWrite configuration to the file\n")

DEFUN(config_list, config_list_cmd, "list", "Print command list\n")
{
    for (auto &e : g_nodes[vty->node].cmds) vty_out(vty, "  %s%s", e.el->string, VTY_NEWLINE);
    return CMD_SUCCESS;
}

DEFUN(config_hostname, config_hostname_cmd, "hostname WORD",
      "Set system's network name\nThis system's network name\n")
{
    if (!std::isalpha(static_cast<unsigned char>(argv[0][0]))) {
        vty_out(vty, "Please specify string starting with alphabet%s", VTY_NEWLINE);
        return CMD_WARNING;
    }
    cmd_set_hostname(argv[0]);
    g_hostname_configured = true;
    return CMD_SUCCESS;
}

cmd_node enable_node = {ENABLE_NODE, "%s# ", 1};
cmd_node config_node = {CONFIG_NODE, "%s(config)# ", 1};

} // namespace

void cmd_init([[maybe_unused]] int terminal)
{
    // A fresh engine each time, so that tests can build their own command sets.
    for (auto &n : g_nodes) n = node_info{};
    g_hostname_configured = false;
    if (g_hostname.empty()) {
        utsname u;
        g_hostname = uname(&u) == 0 ? u.nodename : "localhost";
    }
    install_node(&enable_node, nullptr);
    install_node(&config_node, nullptr);
    for (const cmd_element *c : {&config_terminal_cmd, &show_running_config_cmd, &write_memory_cmd,
                                 &write_file_cmd, &config_list_cmd, &config_exit_cmd, &config_quit_cmd})
        install_element(ENABLE_NODE, c);
    install_default(CONFIG_NODE);
    install_element(CONFIG_NODE, &config_hostname_cmd);
}

void install_node(cmd_node *node, config_write_fn func)
{
    if (!node || node->node < 0 || node->node >= NODE_TYPE_MAX) return;
    g_nodes[node->node].node = node;
    g_nodes[node->node].writer = func;
}

void install_default(node_type node)
{
    for (const cmd_element *c : {&config_exit_cmd, &config_quit_cmd, &config_end_cmd, &show_running_config_cmd,
                                 &write_memory_cmd, &write_file_cmd, &config_list_cmd})
        install_element(node, c);
}

void install_element(node_type node, const cmd_element *cmd)
{
    if (node < 0 || node >= NODE_TYPE_MAX || !cmd || !cmd->string) {
        zlog_err("install_element: bad node %d or command", static_cast<int>(node));
        return;
    }
    auto &cmds = g_nodes[node].cmds;
    for (auto &e : cmds)
        if (e.el == cmd) return;
    cmd_entry e{cmd, {}};
    for (auto &w : split(cmd->string, " \t")) e.tokens.push_back(make_token(w));
    auto help = help_lines(cmd->doc);
    for (size_t i = 0; i < e.tokens.size() && i < help.size(); ++i) e.tokens[i].help = help[i];
    cmds.push_back(std::move(e));
}

void sort_node()
{
    for (auto &n : g_nodes)
        std::stable_sort(n.cmds.begin(), n.cmds.end(), [](const cmd_entry &a, const cmd_entry &b) {
            return std::strcmp(a.el->string, b.el->string) < 0;
        });
}

int cmd_verify_help()
{
    std::set<const cmd_element *> seen;
    int bad = 0;
    for (auto &n : g_nodes)
        for (auto &e : n.cmds) {
            if (!seen.insert(e.el).second) continue;
            size_t lines = help_lines(e.el->doc).size();
            if (lines == e.tokens.size()) continue;
            zlog_err("Command \"%s\" has %zu help lines for %zu tokens", e.el->string, lines, e.tokens.size());
            ++bad;
        }
    return bad;
}

node_type node_parent(node_type node)
{
    if (node > CONFIG_NODE) return CONFIG_NODE;
    if (node == CONFIG_NODE) return ENABLE_NODE;
    return node;
}

void cmd_set_hostname(const char *name) { g_hostname = name ? name : ""; }
const char *cmd_hostname() { return g_hostname.c_str(); }

std::string cmd_prompt(const vty *vty)
{
    const cmd_node *n = vty->node >= 0 && vty->node < NODE_TYPE_MAX ? g_nodes[vty->node].node : nullptr;
    const char *fmt = n && n->prompt ? n->prompt : vty->node > CONFIG_NODE ? "%s(config)# " : "%s# ";
    char buf[256];
    std::snprintf(buf, sizeof buf, fmt, g_hostname.c_str());
    return buf;
}

int cmd_execute(vty *vty, const std::string &line)
{
    auto w = split(line, " \t\r\n");
    if (w.empty()) return CMD_SUCCESS;
    if (w[0] == "do" && vty->node >= CONFIG_NODE) {
        // Runs an operator command without leaving configuration.
        node_type node = vty->node;
        w.erase(w.begin());
        vty->node = ENABLE_NODE;
        int ret = w.empty() ? (vty_out(vty, "%% Command incomplete.%s", VTY_NEWLINE), CMD_ERR_INCOMPLETE)
                            : execute_words(vty, w);
        vty->node = node;
        return ret;
    }
    return execute_words(vty, w);
}

std::vector<std::pair<std::string, std::string>> cmd_describe(vty *vty, const std::string &line, int *status)
{
    help_list items;
    int r = next_tokens(vty->node, line, false, items);
    if (status) *status = r;
    return items;
}

std::vector<std::string> cmd_complete(vty *vty, const std::string &line)
{
    help_list items;
    next_tokens(vty->node, line, true, items);
    std::vector<std::string> out;
    for (auto &i : items) out.push_back(i.first);
    return out;
}

void cmd_write_running_config(vty *vty)
{
    vty_out(vty, "Current configuration:%s", VTY_NEWLINE);
    write_config(vty);
}

void cmd_set_config_file(const char *path) { g_config_file = path ? path : ""; }
const char *cmd_config_file() { return g_config_file.c_str(); }

int cmd_load_config_file(const char *path)
{
    FILE *f = path ? std::fopen(path, "r") : nullptr;
    if (!f) return -1;
    vty *v = vty_new_buffer(CONFIG_NODE);
    int failed = 0, lineno = 0;
    char *buf = nullptr;
    size_t cap = 0;
    ssize_t n;
    while ((n = getline(&buf, &cap, f)) >= 0) {
        ++lineno;
        std::string line(buf, static_cast<size_t>(n));
        line.erase(line.find_last_not_of(" \t\r\n") + 1);
        size_t first = line.find_first_not_of(" \t");
        if (first == std::string::npos) continue;
        if (line[first] == '!' || line[first] == '#') {
            if (first == 0) v->node = CONFIG_NODE;
            continue;
        }
        // Writers indent the lines of a block; an unindented line is a global
        // command unless only the current block knows it (hand-written files).
        if (first == 0 && (v->node <= CONFIG_NODE || resolve(CONFIG_NODE, split(line, " \t")).status == CMD_SUCCESS))
            v->node = CONFIG_NODE;
        v->out.clear();
        int ret = cmd_execute(v, line);
        if (is_success(ret)) continue;
        ++failed;
        std::string why = v->out;
        std::replace(why.begin(), why.end(), '\n', ' ');
        why.erase(why.find_last_not_of(' ') + 1);
        if (why.empty()) why = "failed with code " + std::to_string(ret);
        std::string msg = line.substr(first) + ": " + why;
        zlog_err("%s:%d: %s", path, lineno, msg.c_str());
    }
    std::free(buf);
    std::fclose(f);
    vty_free(v);
    return failed;
}
