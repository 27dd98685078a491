#pragma once

#include <string>

#include "framework/Module.h"

namespace Engine {

// The module: takes policy documents and starts a task for each.
class RsyslogModule : public Framework::Module {
public:
    RsyslogModule();

    // Registers the policy callback. Always 0.
    int Init() override;
    void UnInit() override;

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
