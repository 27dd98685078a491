#include "agent/Settings.h"

#include <Poco/Logger.h>
#include <Poco/String.h>
#include <Poco/Util/Option.h>
#include <sysexits.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <set>
#include <sstream>

#include "agent/StartError.h"
#include "sdk/FileUtils.h"
#include "sdk/Paths.h"
#include "sdk/Trust.h"

namespace {

constexpr std::size_t kMaxFileSize = 1 << 20;

// What a value may be.
struct Kind {
    const char* allowed;  // in words
    bool (*accepts)(const std::string& value);
};

const Kind kPath{"a path", [](const std::string& value) {
                     return !value.empty() && value.find('\0') == std::string::npos;
                 }};
const Kind kLevel{"error, warning, notice, information, debug or trace",
                  [](const std::string& value) {
                      static const std::set<std::string> kLevels{"error",       "warning", "notice",
                                                                 "information", "debug",   "trace"};
                      return kLevels.count(value) != 0;
                  }};
const Kind kPercent{"a number from 0 to 100", [](const std::string& value) {
                        return !value.empty() && value.size() <= 3 &&
                               value.find_first_not_of("0123456789") == std::string::npos &&
                               std::stoi(value) <= 100;
                    }};

// Null stands for what a setting does not have: an option and those who take it, an argument and
// with it a kind, a key of the configuration file, a default.
struct Setting {
    const char* option;
    const char* takers;  // names of commands, and "agent"
    const char* argument;
    const Kind* kind;
    const char* key;
    const char* otherwise;
    const char* description;

    std::string Name() const { return key != nullptr ? key : option; }
};

const Setting kSettings[] = {
    {"config", "agent check status restore", "FILE", &kPath, nullptr, nullptr,
     "configuration file, lines of KEY = VALUE"},
    {"module-dir", "agent check restore", "DIR", &kPath, "module.dir", SDK::Paths::kModules,
     "directory of the modules, *.so"},
    {"policy-dir", "agent", "DIR", &kPath, "policy.dir", SDK::Paths::kPolicies,
     "directory of the policy files, *.json"},
    {"log-dir", "agent restore", "DIR", &kPath, "log.dir", SDK::Paths::kLogs,
     "directory of the log and of local records"},
    {"report", "agent", "FILE", &kPath, "report.file", nullptr,
     "report file, default LOGDIR/watchpost_report.jsonl"},
    {"log-level", "agent", "LEVEL", &kLevel, "log.level", "information", kLevel.allowed},
    {nullptr, nullptr, nullptr, &kPercent, "cpu.limit.percent", "0", nullptr},
    {nullptr, nullptr, nullptr, &kPath, "status.file", SDK::Paths::kStatus, nullptr},
    {nullptr, nullptr, nullptr, &kPath, "metrics.file", nullptr, nullptr},
    {"pidfile", "agent", "FILE", &kPath, nullptr, nullptr,
     "file that names the process while it runs"},
    {"daemon", "agent", nullptr, nullptr, nullptr, nullptr, "run in the background"},
    {"host", "check", nullptr, nullptr, nullptr, nullptr,
     "check against this host too, and show what would be done to it"},
    {"yes", "restore", nullptr, nullptr, nullptr, nullptr, "do not ask"},
    {"json", "check status", nullptr, nullptr, nullptr, nullptr, "print JSON"},
    {"version", "agent", nullptr, nullptr, nullptr, nullptr, "print the version"},
    {"help", "agent check status restore", nullptr, nullptr, nullptr, nullptr, "print this help"},
};

bool Takes(const std::string& taker, const Setting& setting) {
    return setting.option != nullptr &&
           (std::string(" ") + setting.takers + " ").find(" " + taker + " ") != std::string::npos;
}

// The setting whose `member`, option or key, is `name`; null when there is none.
const Setting* Find(const char* Setting::*member, const std::string& name) {
    for (const Setting& setting : kSettings) {
        if (setting.*member != nullptr && name == setting.*member) {
            return &setting;
        }
    }
    return nullptr;
}

// Whether the key's first word is one that the agent's own keys begin with, or there is but one.
bool IsOwn(const std::string& key) {
    const std::size_t dot = key.find('.');
    return dot == std::string::npos ||
           std::any_of(std::begin(kSettings), std::end(kSettings), [&](const Setting& setting) {
               return setting.key != nullptr && key.compare(0, dot + 1, setting.key, dot + 1) == 0;
           });
}

std::string Checked(const Setting& setting, const std::string& value, int status,
                    const std::string& name) {
    if (setting.kind == nullptr) {
        return value;
    }
    if (!setting.kind->accepts(value)) {
        throw StartError{status,
                         name + " must be " + setting.kind->allowed + ", not \"" + value + "\""};
    }
    return setting.kind == &kPath ? std::filesystem::absolute(value).string() : value;
}

}  // namespace

void Settings::DefineOptions(const std::string& taker, Poco::Util::OptionSet& options) {
    for (const Setting& setting : kSettings) {
        if (!Takes(taker, setting)) {
            continue;
        }
        Poco::Util::Option option(setting.option, "", setting.description);
        if (setting.argument != nullptr) {
            option.argument(setting.argument);
        }
        options.addOption(option);
    }
}

void Settings::SetOption(const std::string& option, const std::string& value) {
    const Setting* setting = Find(&Setting::option, option);
    values_[setting->Name()] = Checked(*setting, value, EX_USAGE, "--" + option);
}

void Settings::ReadFile(const std::string& otherwise) {
    const bool named = IsSet("config");
    const std::string path = named ? Get("config") : otherwise;
    SDK::FileUtils::FileReader file;
    std::string text;
    int error = file.Open(path);
    if (error == ENOENT && !named) {
        return;
    }
    const std::string what = "configuration file " + path;
    if (error == 0) {
        std::string why_not = file.Distrust();
        if (why_not.empty()) {
            why_not = SDK::Trust::WhyNotWay(path);
        }
        if (!why_not.empty()) {
            throw StartError{EX_NOPERM, what + ": " + why_not};
        }
        error = file.Read(text, kMaxFileSize);
    }
    if (error != 0) {
        throw StartError{EX_CONFIG, what + ": " + std::strerror(error)};
    }
    std::map<std::string, std::string> values;
    std::istringstream lines(text);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        Poco::trimInPlace(line);
        if (line.empty() || line[0] == '#' || line[0] == '!') {
            continue;
        }
        const std::string place = what + ", line " + std::to_string(number) + ": ";
        const std::size_t sign = line.find('=');
        if (sign == std::string::npos) {
            throw StartError{EX_CONFIG, place + "not KEY = VALUE: " + line};
        }
        const std::string key = Poco::trim(line.substr(0, sign));
        const Setting* setting = Find(&Setting::key, key);
        if (setting == nullptr && IsOwn(key)) {
            throw StartError{EX_CONFIG, place + "unknown key " + key};
        }
        const std::string value = Poco::trim(line.substr(sign + 1));
        const bool first =
            setting == nullptr
                ? module_settings_.emplace(key, ModuleSetting{value, place}).second
                : values.emplace(key, Checked(*setting, value, EX_CONFIG, place + key)).second;
        if (!first) {
            throw StartError{EX_CONFIG, place + key + " is set a second time"};
        }
    }
    values_.merge(values);  // keeps what is there
}

std::vector<std::string> Settings::ExpectOnly(const std::set<std::string>& keys) const {
    std::vector<std::string> idle;
    for (const auto& [key, setting] : module_settings_) {
        if (keys.count(key) != 0) {
            continue;
        }
        const std::string word = key.substr(0, key.find('.') + 1);
        if (std::any_of(keys.begin(), keys.end(),
                        [&](const std::string& known) { return known.rfind(word, 0) == 0; })) {
            throw StartError{EX_CONFIG, setting.place + "unknown key " + key};
        }
        idle.push_back(setting.place + key);
    }
    return idle;
}

std::map<std::string, std::string> Settings::ByKey() const {
    std::map<std::string, std::string> all;
    for (const Setting& setting : kSettings) {
        if (setting.key != nullptr && (IsSet(setting.key) || setting.otherwise != nullptr)) {
            all[setting.key] = Get(setting.key);
        }
    }
    for (const auto& [key, setting] : module_settings_) {
        all[key] = setting.value;
    }
    return all;
}

std::string Settings::Get(const std::string& name) const {
    const auto found = values_.find(name);
    if (found != values_.end()) {
        return found->second;
    }
    const Setting* setting = Find(&Setting::key, name);
    return setting != nullptr && setting->otherwise != nullptr ? setting->otherwise : "";
}
