// faults.cpp: the fault file and its rules.
#include "faults.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "foundation/log.h"
#include "server-path.h"

namespace {

const char* const kLog = "server_debug";

bool ParseNumber(const std::string& text, uint64_t& out) {
    if (text.empty() || text[0] == '-') return false;
    char* end = nullptr;
    out = std::strtoull(text.c_str(), &end, 0);
    return end && *end == '\0';
}

}  // namespace

std::vector<Faults::Rule> Faults::Parse(const std::string& text, int& bad) {
    std::vector<Rule> rules;
    bad = 0;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        size_t hash = line.find('#');
        if (hash != std::string::npos) line.resize(hash);
        std::istringstream words(line);
        std::vector<std::string> w;
        std::string word;
        while (words >> word) w.push_back(word);
        if (w.empty()) continue;
        Rule rule;
        bool ok = true;
        if (w.size() > 1 && w.back().rfind("times=", 0) == 0) {
            uint64_t n = 0;
            ok = ParseNumber(w.back().substr(6), n);
            rule.remaining = static_cast<int>(n);
            w.pop_back();
        }
        if (ok && w[0] == "close-after" && w.size() == 3) {
            rule.kind = Rule::CLOSE_AFTER;
            rule.action = w[1];
            ok = ParseNumber(w[2], rule.value) && rule.value > 0;
        } else if (ok && w[0] == "cut-reply" && w.size() == 3) {
            rule.kind = Rule::CUT_REPLY;
            rule.action = w[1];
            ok = ParseNumber(w[2], rule.value) && rule.value > 0;
        } else if (ok && (w[0] == "error" || w[0] == "bad-hash") &&
                   w.size() == (w[0] == "error" ? 4u : 3u)) {
            rule.kind = w[0] == "error" ? Rule::ERROR : Rule::BAD_HASH;
            rule.action = w[1];
            rule.path = w[2];
            if (rule.kind == Rule::ERROR) ok = ParseNumber(w[3], rule.value) && rule.value > 0;
            ok = ok && (rule.path == "*" || server_path::Normalize(w[2], rule.path));
        } else if (ok && w[0] == "delay" && w.size() == 3) {
            rule.kind = Rule::DELAY;
            rule.action = w[1];
            ok = ParseNumber(w[2], rule.value);
        } else {
            ok = false;
        }
        if (!ok) {
            ++bad;
            continue;
        }
        rules.push_back(rule);
    }
    return rules;
}

void Faults::Refresh() {
    if (m_path.empty()) return;
    struct stat st {};
    if (::stat(m_path.c_str(), &st) != 0) {
        m_rules.clear();
        m_loaded = false;
        return;
    }
    if (m_loaded && st.st_size == m_size && st.st_mtim.tv_sec == m_mtime.tv_sec &&
        st.st_mtim.tv_nsec == m_mtime.tv_nsec)
        return;
    std::ifstream in(m_path);
    std::stringstream text;
    text << in.rdbuf();
    int bad = 0;
    m_rules = Parse(text.str(), bad);
    if (bad > 0)
        Logger::LogMsg(Logger::L_WARNING, kLog, "[WARNING] faults(%d): %d line(s) of %s skipped\n",
                       __LINE__, bad, m_path.c_str());
    m_loaded = true;
    m_size = st.st_size;
    m_mtime = st.st_mtim;
}

const Faults::Rule* Faults::Fire(Rule::Kind kind, const std::string& action,
                                 const std::string& path) {
    Refresh();
    for (Rule& rule : m_rules) {
        if (rule.kind != kind || rule.remaining == 0) continue;
        if (rule.action != "*" && rule.action != action) continue;
        const bool by_path = kind == Rule::ERROR || kind == Rule::BAD_HASH;
        if (by_path && rule.path != "*" && rule.path != path) continue;
        if (rule.remaining > 0) --rule.remaining;
        return &rule;
    }
    return nullptr;
}

uint64_t Faults::CloseAfter(const std::string& action) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const Rule* rule = Fire(Rule::CLOSE_AFTER, action, std::string());
    return rule ? rule->value : 0;
}

uint32_t Faults::ErrorFor(const std::string& action, const std::string& path) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const Rule* rule = Fire(Rule::ERROR, action, path);
    return rule ? static_cast<uint32_t>(rule->value) : 0;
}

uint32_t Faults::DelayMs(const std::string& action) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const Rule* rule = Fire(Rule::DELAY, action, std::string());
    return rule ? static_cast<uint32_t>(rule->value) : 0;
}

uint64_t Faults::CutReplyAfter(const std::string& action) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const Rule* rule = Fire(Rule::CUT_REPLY, action, std::string());
    return rule ? rule->value : 0;
}

bool Faults::BadHash(const std::string& action, const std::string& path) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return Fire(Rule::BAD_HASH, action, path) != nullptr;
}
