#include "agent/Describe.h"

#include <Poco/Pipe.h>
#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <Poco/StreamCopier.h>

#include <sstream>

#include "sdk/PrivateFolder.h"
#include "sdk/StringUtils.h"

namespace Describe {

namespace {

using SDK::StringUtils::ToPrintable;

// As lines behind a margin.
std::string Indented(const std::string& text) {
    std::istringstream lines(text);
    std::string indented;
    for (std::string line; std::getline(lines, line);) {
        indented += "    " + ToPrintable(line) + "\n";
    }
    return indented;
}

std::string Diff(const Framework::FileChange& file) {
    const SDK::PrivateFolder folder;
    const std::string before = folder.Write("before", file.before);
    const std::string after = folder.Write("after", file.after);
    const std::string old_label = file.existed ? file.path : "/dev/null";
    const std::string new_label = file.remains ? file.path : "/dev/null";
    Poco::Pipe output;
    const Poco::ProcessHandle diff = Poco::Process::launch(
        "diff", {"--text", "-u", "--label", old_label, "--label", new_label, before, after},
        nullptr, &output, nullptr);
    Poco::PipeInputStream stream(output);
    std::string text;
    Poco::StreamCopier::copyToString(stream, text);
    diff.wait();
    return text;
}

}  // namespace

Json::Value ToJson(const Framework::Finding& finding) {
    Json::Value value(Json::objectValue);
    value["severity"] = Framework::Name(finding.severity);
    value["key"] = finding.key;
    value["problem"] = finding.problem;
    value["advice"] = finding.advice;
    value["refuses"] = finding.refuses;
    return value;
}

Json::Value ToJson(const Framework::HostChange& change) {
    Json::Value value(Json::objectValue);
    value["files"] = Json::Value(Json::arrayValue);
    for (const auto& file : change.files) {
        Json::Value entry(Json::objectValue);
        entry["path"] = file.path;
        entry["change"] = !file.remains ? "removed" : file.existed ? "changed" : "made";
        entry["diff"] = Diff(file);
        value["files"].append(entry);
    }
    value["commands"] = Json::Value(Json::arrayValue);
    for (const auto& command : change.commands) {
        value["commands"].append(command);
    }
    value["verdicts"] = Json::Value(Json::arrayValue);
    for (const auto& verdict : change.verdicts) {
        Json::Value entry(Json::objectValue);
        entry["command"] = verdict.command;
        entry["verdict"] = !verdict.asked ? "not asked" : verdict.accepted ? "accepted" : "refused";
        entry["words"] = verdict.words;
        value["verdicts"].append(entry);
    }
    return value;
}

std::string ToText(const Framework::Finding& finding) {
    return std::string("  ") + Framework::Name(finding.severity) + "  " +
           ToPrintable(Framework::Describe(finding)) + "\n";
}

std::string ToText(const Framework::HostChange& change, bool planned) {
    const std::string would = planned ? "  would " : "  ";
    std::string text;
    for (const auto& file : change.files) {
        const std::string verb = !file.remains  ? (planned ? "remove " : "removed ")
                                 : file.existed ? (planned ? "change " : "changed ")
                                                : (planned ? "write " : "wrote ");
        text += would + verb + ToPrintable(file.path) + "\n" + Indented(Diff(file));
    }
    for (const auto& command : change.commands) {
        text += would + (planned ? "run " : "ran ") + command + "\n";
    }
    for (const auto& verdict : change.verdicts) {
        text += "  " + verdict.command +
                (!verdict.asked     ? " could not be asked"
                 : verdict.accepted ? " accepts that"
                                    : " finds fault with that") +
                "\n" + Indented(verdict.words);
    }
    return text;
}

}  // namespace Describe
