#include "module/module_rsyslog/src/SyslogRules.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <glob.h>

#include <algorithm>
#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <system_error>

#include "module/module_rsyslog/src/MarkedBlock.h"
#include "module/module_rsyslog/src/RsyslogInclude.h"
#include "sdk/FileUtils.h"

namespace Engine {

namespace {

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;
using Mask = std::array<Takes, 8>;

constexpr std::size_t kMaxBytes = 32 << 20;  // of all files
constexpr int kMaxFiles = 1000;
constexpr int kMaxDepth = 8;
constexpr std::size_t kMaxText = 100;

Mask All(Takes takes) {
    Mask mask{};
    mask.fill(takes);
    return mask;
}

bool IsBlank(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// One statement with the line it begins in.
struct Statement {
    int line = 0;
    std::string text;
};

// Takes a configuration apart. Comments go; a statement is a line, with those that continue it, and
// goes on while a bracket or a text in quotes is open.
class Splitter {
public:
    explicit Splitter(const std::string& text) : text_(text) {}

    std::vector<Statement> Split() {
        for (at_ = 0; at_ < text_.size(); ++at_) {
            Character(text_[at_]);
        }
        End();
        return std::move(statements_);
    }

private:
    void Character(char c) {
        if (c == '\n') {
            ++line_;
        }
        if (quote_ != '\0') {
            Add(c);
            if (c == '\\' && at_ + 1 < text_.size() && text_[at_ + 1] != '\n') {
                Add(text_[++at_]);
            } else if (c == quote_) {
                quote_ = '\0';
            } else if (c == '\n' && depth_ == 0) {
                quote_ = '\0';  // an apostrophe
                End();
            }
        } else if (c == '#' && (now_.text.empty() || IsBlank(now_.text.back()))) {
            at_ = std::min(text_.find('\n', at_), text_.size()) - 1;
        } else if (c == '/' && text_.compare(at_, 2, "/*") == 0 && StartsWord()) {
            SkipComment();
        } else if (c == '\\' && at_ + 1 < text_.size() && text_[at_ + 1] == '\n') {
            ++line_;
            at_ = std::min(text_.find_first_not_of(" \t", at_ + 2), text_.size()) - 1;
        } else if (c == '\n' && depth_ == 0) {
            End();
        } else {
            Bracket(c);
            Add(c);
        }
    }

    void Bracket(char c) {
        if (c == '"' || c == '\'') {
            quote_ = c;
        } else if (c == '(' || c == '{') {
            ++depth_;
        } else if ((c == ')' || c == '}') && depth_ > 0) {
            --depth_;
        }
    }

    // A path's "/*" is no comment.
    bool StartsWord() const { return now_.text.empty() || IsBlank(now_.text.back()); }

    void SkipComment() {
        const std::size_t end = std::min(text_.find("*/", at_ + 2), text_.size());
        line_ += static_cast<int>(std::count(text_.begin() + static_cast<long>(at_),
                                             text_.begin() + static_cast<long>(end), '\n'));
        at_ = std::min(end + 1, text_.size());
    }

    void Add(char c) {
        if (now_.text.empty()) {
            if (IsBlank(c)) {
                return;
            }
            now_.line = line_;
        }
        now_.text += c;
    }

    void End() {
        boost::trim_right(now_.text);
        // The other half of a condition.
        const bool goes_on = boost::starts_with(now_.text, "else") ||
                             boost::starts_with(now_.text, "then") ||
                             boost::starts_with(now_.text, "{");
        if (goes_on && !statements_.empty()) {
            statements_.back().text += "\n" + now_.text;
        } else if (!now_.text.empty()) {
            statements_.push_back(std::move(now_));
        }
        now_ = {};
    }

    const std::string& text_;
    std::vector<Statement> statements_;
    Statement now_;
    std::size_t at_ = 0;
    int line_ = 1;
    int depth_ = 0;
    char quote_ = '\0';
};

// The value of a parameter, name="value"; empty when there is none.
std::string Parameter(const std::string& text, const std::string& name) {
    for (std::size_t at = 0; (at = text.find('=', at)) != std::string::npos; ++at) {
        std::size_t end = at;
        while (end > 0 && IsBlank(text[end - 1])) {
            --end;
        }
        const std::size_t begin = end < name.size() ? 0 : end - name.size();
        const std::size_t open = text.find_first_not_of(" \t\n", at + 1);
        if (boost::iequals(text.substr(begin, end - begin), name) && open != std::string::npos &&
            (begin == 0 || std::isalnum(static_cast<unsigned char>(text[begin - 1])) == 0) &&
            text[open] == '"') {
            return text.substr(open + 1, text.find('"', open + 1) - open - 1);
        }
    }
    return {};
}

// Where the bracket that opens first from there on is closed; brackets in quotes don't count.
std::size_t FindClosing(const std::string& text, std::size_t from) {
    bool quoted = false;
    for (std::size_t at = from; at < text.size(); ++at) {
        if (text[at] == '\\' && quoted) {
            ++at;
        } else if (text[at] == '"') {
            quoted = !quoted;
        } else if (text[at] == ')' && !quoted) {
            return at;
        }
    }
    return text.size();
}

// The messages that a selector takes, as in "*.*;auth,authpriv.none".
Mask Selected(const std::string& selector) {
    Mask mask = All(Takes::kNo);
    Strings pieces;
    boost::split(pieces, selector, boost::is_any_of(";"));
    for (const auto& piece : pieces) {
        const std::size_t dot = piece.find('.');
        if (dot == std::string::npos) {
            continue;
        }
        std::string priority = boost::to_lower_copy(boost::trim_copy(piece.substr(dot + 1)));
        const bool negated = boost::starts_with(priority, "!");
        priority.erase(0, priority.find_first_not_of("!="));
        const bool none = priority == "none";
        // Messages of severity debug are what every other priority leaves out.
        if (!none && priority != "*" && priority != "debug" && priority != "7") {
            continue;
        }
        Strings facilities;
        const std::string list = piece.substr(0, dot);
        boost::split(facilities, list, boost::is_any_of(","));
        for (std::string facility : facilities) {
            boost::trim(facility);
            for (std::size_t k = 0; k < mask.size(); ++k) {
                if (facility == "*" || boost::iequals(facility, "local" + std::to_string(k))) {
                    mask[k] = none || negated ? Takes::kNo : Takes::kYes;
                }
            }
        }
    }
    return mask;
}

// Walks through statements and notes what becomes of messages.
class ConfReader {
public:
    RsyslogRules Read(const std::string& conf) {
        const auto directories = FindIncludeDirectories(conf);
        own_ = (directories.empty() ? "" : directories.front()) + kRsyslogIncludeFile;
        File(conf, 0);
        if (calls_) {
            for (const Ruleset& ruleset : rulesets_) {
                place_ = ruleset.place;
                Actions(ruleset.text, All(Takes::kPerhaps));
            }
        }
        ResolveNames();
        return std::move(rules_);
    }

private:
    void File(const std::string& path, int depth) {
        std::string text;
        if (path == own_) {
            rules_.reads_own = true;
            rules_.stopped_before = stops_;
            return;
        }
        if (depth > kMaxDepth || ++files_read_ > kMaxFiles) {
            rules_.whole = false;
            return;
        }
        if (const int error = SDK::FileUtils::ReadFile(path, text, bytes_left_); error != 0) {
            rules_.whole &= error != EFBIG;
            return;
        }
        bytes_left_ -= text.size();
        for (const Statement& statement : Splitter(text).Split()) {
            place_ = {path, statement.line, statement.text.substr(0, kMaxText)};
            // Words are as good in capitals and with a blank behind them.
            std::string text_now = statement.text;
            for (const std::string word : {"action", "include", "module", "ruleset", "input",
                                           "template", "global", "main_queue"}) {
                boost::ireplace_all(text_now, word + " (", word + "(");
                boost::ireplace_all(text_now, word + "(", word + "(");
            }
            Take(text_now, depth);
        }
    }

    void Take(const std::string& text, int depth) {
        const auto begins = [&text](const char* word) { return boost::istarts_with(text, word); };
        if (begins("$IncludeConfig")) {
            Include(boost::trim_copy(text.substr(14)), depth);
        } else if (begins("include(")) {
            Include(Parameter(text, "file"), depth);
        } else if (begins("$template") || begins("$outchannel")) {
            // NAME,"/var/log/%HOSTNAME%.log" or NAME,/var/log/app.log,SIZE,COMMAND
            Strings parts;
            boost::split(parts, text.substr(text.find_first_of(" \t\n,")), boost::is_any_of(","));
            for (std::string& part : parts) {
                boost::trim_if(part, boost::is_any_of(" \t\""));
            }
            parts.resize(2);
            files_by_name_[(begins("$template") ? "" : "$") + parts[0]] = parts[1];
        } else if (begins("template(")) {
            files_by_name_[Parameter(text, "name")] = Parameter(text, "string");
        } else if (begins("$DefaultRuleset")) {
            rules_.other_default = place_;
        } else if (begins("$RuleSet")) {
            default_ruleset_ = boost::icontains(text, "RSYSLOG_DefaultRuleset");
        } else if (begins("$ModLoad") || begins("module(")) {
            if (boost::contains(text, "imfile")) {
                rules_.imfile_loads.push_back(place_);
            }
        } else if (default_ruleset_) {
            Rule(text);
        }
    }

    void Include(const std::string& pattern, int depth) {
        glob_t found = {};
        const std::string all = boost::ends_with(pattern, "/") ? pattern + "*" : pattern;
        std::set<std::string> paths;
        if (glob(all.c_str(), 0, nullptr, &found) == 0) {
            paths.insert(found.gl_pathv, found.gl_pathv + found.gl_pathc);
        }
        globfree(&found);
        // Once it is written, the agent's own stands there.
        if (fnmatch(all.c_str(), own_.c_str(), FNM_PATHNAME) == 0) {
            paths.insert(own_);
        }
        for (const auto& path : paths) {
            File(path, depth + 1);
        }
    }

    void Rule(const std::string& text) {
        calls_ |= boost::icontains(text, "call");
        if (boost::starts_with(text, "ruleset")) {
            rulesets_.push_back({place_, text.substr(std::min(text.find('{'), text.size()))});
        } else if (std::string("$!+").find(text[0]) != std::string::npos ||
                   boost::starts_with(text, "input(") || boost::starts_with(text, "global(") ||
                   boost::starts_with(text, "main_queue(")) {
            return;  // blocks of programs and hosts have no effect either
        } else if (text[0] == '&') {
            Actions(text.substr(1), filter_);
        } else if (text[0] == ':') {
            // :property, operation, "value" action
            const std::size_t value = text.rfind('"');
            filter_ = All(Takes::kPerhaps);
            Actions(value == std::string::npos ? "" : text.substr(value + 1), filter_);
        } else if (boost::istarts_with(text, "if") && text.size() > 2 &&
                   (IsBlank(text[2]) || text[2] == '(')) {
            filter_ = All(Takes::kPerhaps);
            Condition(text);
        } else if (boost::starts_with(text, "action(") || boost::istarts_with(text, "stop") ||
                   text[0] == '~') {
            filter_ = All(Takes::kYes);
            Actions(text, filter_);
        } else {
            const std::size_t blank = text.find_first_of(" \t\n");
            if (blank != std::string::npos) {
                filter_ = Selected(text.substr(0, blank));
                Actions(text.substr(blank), filter_);
            }
        }
    }

    // All that may follow on "then", "else" and "{".
    void Condition(const std::string& text) {
        std::string rest = text;
        for (std::size_t at = 0; at < rest.size(); ++at) {
            const bool starts = at > 0 && (IsBlank(rest[at - 1]) || rest[at - 1] == ')');
            const bool ends =
                at + 4 < rest.size() && (IsBlank(rest[at + 4]) || rest[at + 4] == '{');
            if (starts && ends &&
                (boost::iequals(rest.substr(at, 4), "then") ||
                 boost::iequals(rest.substr(at, 4), "else"))) {
                rest.replace(at, 4, "\n\n\n\n");
            }
        }
        Actions(rest, filter_);
    }

    // Every action of a text, of which several stand in braces or on lines of their own.
    void Actions(const std::string& text, const Mask& filter) {
        std::string rest;
        std::size_t from = 0;
        for (std::size_t at; (at = text.find("action(", from)) != std::string::npos;) {
            rest += text.substr(from, at - from) + "\n";
            from = FindClosing(text, at);
            const std::string action = text.substr(at, from - at);
            if (boost::iequals(Parameter(action, "type"), "omfile")) {
                Writes(Parameter(action, "file"), filter);
                WritesNamed(Parameter(action, "dynafile"), filter);
            }
        }
        rest += text.substr(from);
        Strings lines;
        boost::split(lines, rest, boost::is_any_of("\n{}"));
        for (std::string& line : lines) {
            boost::trim_if(line, [](char c) { return IsBlank(c) || c == ')' || c == ';'; });
            const std::size_t blank = line.find_first_of(" \t");
            if (!Action(line, filter) && blank != std::string::npos && line.find('.') < blank) {
                Mask both = Selected(line.substr(0, blank));  // a selector within braces
                for (std::size_t k = 0; k < both.size(); ++k) {
                    both[k] = std::min(both[k], filter[k]);
                }
                Action(boost::trim_copy(line.substr(blank)), both);
            }
        }
    }

    // An action of the old style; false when the line is none.
    bool Action(const std::string& line, const Mask& filter) {
        const std::size_t start = boost::starts_with(line, "-") ? 1 : 0;
        const auto word = [&line](std::size_t from) {
            return line.substr(from, line.find_first_of("; \t", from) - from);
        };
        if (line.compare(start, 1, "/") == 0) {
            Writes(word(start), filter);
        } else if (line.compare(start, 1, "?") == 0) {
            WritesNamed(word(start + 1), filter);
        } else if (boost::starts_with(line, ":omfile:$")) {
            WritesNamed(word(8), filter);
        } else if (boost::starts_with(line, ":omfile:/")) {
            Writes(word(8), filter);
        } else if (line.compare(0, 2, "|/") == 0) {
            Writes(word(1), filter);
        } else if (line == "~" || boost::iequals(word(0), "stop")) {
            Stop(filter);
        } else {
            return false;
        }
        return true;
    }

    Takes Reaches(std::size_t k, const Mask& filter) const {
        return std::min(alive_[k], filter[k]);
    }

    void Writes(const std::string& file, const Mask& filter) {
        FileRule rule{file, place_, {}};
        for (std::size_t k = 0; k < rule.takes.size(); ++k) {
            rule.takes[k] = Reaches(k, filter);
        }
        if (!file.empty()) {
            rules_.files.push_back(rule);
        }
    }

    // Where the configuration has the file under a name, it may be this one or that.
    void WritesNamed(const std::string& name, const Mask& filter) {
        Mask perhaps = filter;
        for (Takes& takes : perhaps) {
            takes = std::min(takes, Takes::kPerhaps);
        }
        Writes(name.empty() ? "" : "?" + name, perhaps);
    }

    // Names may be given behind their use. What a template fills in matches anything.
    void ResolveNames() {
        for (FileRule& rule : rules_.files) {
            if (rule.file.front() == '?') {
                const std::string& text = files_by_name_[rule.file.substr(1)];
                rule.file.clear();
                Strings pieces;
                boost::split(pieces, text, boost::is_any_of("%"));
                for (std::size_t i = 0; i < pieces.size(); ++i) {
                    rule.file += i % 2 == 0 ? pieces[i] : "*";
                }
            }
        }
        rules_.files.erase(std::remove_if(rules_.files.begin(), rules_.files.end(),
                                          [](const FileRule& rule) { return rule.file.empty(); }),
                           rules_.files.end());
    }

    void Stop(const Mask& filter) {
        for (std::size_t k = 0; k < alive_.size(); ++k) {
            const Takes stopped = Reaches(k, filter);
            if (stopped != Takes::kNo && stops_[k].line == 0) {
                stops_[k] = place_;
            }
            if (stopped == Takes::kYes) {
                alive_[k] = Takes::kNo;
            } else if (stopped == Takes::kPerhaps) {
                alive_[k] = Takes::kPerhaps;
            }
        }
    }

    RsyslogRules rules_;
    std::string own_;
    ConfPlace place_;
    Mask filter_ = All(Takes::kNo);   // of the rule before, which "&" goes on with
    Mask alive_ = All(Takes::kYes);   // what no rule has stopped
    std::array<ConfPlace, 8> stops_;  // the first ones
    struct Ruleset {
        ConfPlace place;
        std::string text;
    };
    std::vector<Ruleset> rulesets_;
    bool calls_ = false;                                // one of those, perhaps
    std::map<std::string, std::string> files_by_name_;  // of templates and "$" output channels
    bool default_ruleset_ = true;
    int files_read_ = 0;
    std::size_t bytes_left_ = kMaxBytes;
};

// The strongest way from forwarded file to forwarded file, over any number of rules.
using Ways = std::vector<std::vector<Takes>>;

void Close(Ways& ways) {
    for (std::size_t via = 0; via < ways.size(); ++via) {
        for (auto& from : ways) {
            for (std::size_t to = 0; to < ways.size(); ++to) {
                from[to] = std::max(from[to], std::min(from[via], ways[via][to]));
            }
        }
    }
}

// Either may be a pattern, or another name of the file.
bool AreSame(const std::string& path, const std::string& written) {
    std::error_code error;
    return path == written || fnmatch(path.c_str(), written.c_str(), FNM_PATHNAME) == 0 ||
           fnmatch(written.c_str(), path.c_str(), FNM_PATHNAME) == 0 ||
           fs::equivalent(path, written, error);
}

// The file's rule that takes most of what comes back to it.
Return Judge(const std::vector<const FileRule*>& rules, const Ways& ways, std::size_t file) {
    Return found;
    for (const FileRule* rule : rules) {
        Takes back = Takes::kNo;
        for (std::size_t from = 0; from < ways.size(); ++from) {
            const Takes reaches = from == file ? Takes::kYes : ways[file][from];
            back = std::max(back, std::min(reaches, rule->takes[from + 1]));
        }
        const Return::Kind kind = back == Takes::kYes       ? Return::kLoops
                                  : back == Takes::kPerhaps ? Return::kPerhaps
                                                            : Return::kCopied;
        if (kind > found.kind) {
            found = {kind, rule};
        }
    }
    return found;
}

}  // namespace

RsyslogRules RsyslogRules::Read(const std::string& conf) {
    return ConfReader().Read(conf);
}

std::vector<Return> FindReturns(const RsyslogRules& rules, const std::vector<std::string>& files,
                                const std::set<std::string>& open) {
    constexpr std::size_t kMostFiles = 7;
    const std::size_t count = std::min(files.size(), kMostFiles);
    std::vector<std::vector<const FileRule*>> writers(count);
    Ways ways(count, std::vector<Takes>(count, Takes::kNo));
    for (std::size_t to = 0; to < count; ++to) {
        const std::string path = CanonicalPath(files[to]);
        for (const FileRule& rule : rules.files) {
            const std::string written = CanonicalPath(rule.file);
            if (!AreSame(path, written)) {
                continue;
            }
            writers[to].push_back(&rule);
            for (std::size_t from = 0; from < count; ++from) {
                ways[from][to] = std::max(ways[from][to], rule.takes[from + 1]);
            }
        }
    }
    Close(ways);
    std::vector<Return> returns(files.size());
    for (std::size_t i = 0; i < count; ++i) {
        returns[i] = Judge(writers[i], ways, i);
        if (writers[i].empty() && open.count(CanonicalPath(files[i])) != 0) {
            returns[i].kind = Return::kPerhaps;
        }
    }
    return returns;
}

std::set<std::string> FilesWrittenBy(int process) {
    std::set<std::string> files;
    const fs::path base = "/proc/" + std::to_string(process);
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(base / "fd", error)) {
        const fs::path target = fs::read_symlink(entry.path(), error);
        std::ifstream info(base / "fdinfo" / entry.path().filename());
        std::string word;
        while (info >> word && word != "flags:") {
        }
        int flags = 0;
        if (info >> std::oct >> flags && (flags & O_ACCMODE) != O_RDONLY &&
            fs::is_regular_file(target, error)) {
            files.insert(target.string());
        }
    }
    return files;
}

std::string CanonicalPath(const std::string& path) {
    std::error_code error;
    const fs::path canonical = fs::weakly_canonical(path, error);
    return error ? path : canonical.string();
}

bool HasCatchAll(const std::string& conf) {
    std::string text;
    Strings paths = {conf};
    for (const auto& entry : {fs::path(conf).parent_path() / "conf.d"}) {
        std::error_code error;
        for (const auto& file : fs::directory_iterator(entry, error)) {
            paths.push_back(file.path().string());
        }
    }
    return std::any_of(paths.begin(), paths.end(), [&text](const std::string& path) {
        if (SDK::FileUtils::ReadFile(path, text, kMaxConfSize) != 0) {
            return false;
        }
        const auto statements = Splitter(text).Split();
        return std::any_of(statements.begin(), statements.end(), [](const Statement& statement) {
            return boost::contains(statement.text, "catchall") ||
                   boost::contains(statement.text, "catch-all") ||
                   boost::contains(statement.text, "catch_all");
        });
    });
}

}  // namespace Engine
