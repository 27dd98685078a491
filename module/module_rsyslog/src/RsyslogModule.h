#pragma once

#include <string>
#include <vector>

#include "framework/Module.h"

namespace Engine {

// The module: takes policy documents and starts a task for each.
class RsyslogModule : public Framework::Module {
public:
    RsyslogModule();

    // Registers the policy callback. Always 0.
    int Init() override;
    void UnInit() override;

    bool JudgePolicy(const std::string& type, const std::string& text, bool host,
                     std::vector<Framework::Finding>& findings) override;
    Framework::HostChange PreviewPolicy(const std::string& type, const std::string& text) override;
    std::vector<Framework::Condition> Conditions() override;
    Framework::Figures GetFigures() override;
    Framework::HostChange Restore(bool planned_only) override;

protected:
    ~RsyslogModule() override = default;

    // Policy thread. Checks that the document is for this module, registers a new task, and
    // returns the parsed policy, which the caller owns, or null when the document is refused.
    // A document of this module flags `current`, also when its feature is unknown.
    Framework::Policy* RefreshFeaturePolicy(const std::string& key, const std::string& text,
                                            Framework::Policy*& current);
};

}  // namespace Engine

// The factory that the framework calls; the caller owns the Framework::Module it returns.
extern "C" void* CreateModule();
