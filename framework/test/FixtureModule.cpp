#include "framework/Engine.h"
#include "framework/Log.h"
#include "framework/Module.h"

// One source, built into several modules: the definition FIXTURE_<kind> says what is wrong with it.
// FIXTURE_SOUND has the command "sing", whose exit status counts its arguments, starts the task
// "start", with the setting sound.volume behind that, and a task named after the text of each
// document, all but "bad" accepted; a task reports its name when it starts and "end" when it ends.
#ifndef FIXTURE_FACTORY_MISSING

namespace {

using Framework::DataMessage;

class FixtureTask : public Framework::Task {
public:
    explicit FixtureTask(const std::string& name)
        : Task(name, "", Framework::TaskCondition::kPeriodic, 8) {}
    int Init() override {
        SendDirectMsg("data_comm_report_task", std::make_shared<DataMessage>("fixture", name()));
        return 1;
    }
    void UnInit() override {
        SendDirectMsg("data_comm_report_task", std::make_shared<DataMessage>("fixture", "end"));
    }
};

struct FixturePolicy : Framework::FeaturePolicy {
    using FeaturePolicy::FeaturePolicy;
    bool Parse(const std::string& /*text*/) override { return true; }
};

class FixtureModule : public Framework::Module {
public:
    FixtureModule() : Module("fixture") {}
    int Init() override {
        RegisterPolicyCallback(
            "10001", new Framework::PolicyCallback<FixtureModule>(this, &FixtureModule::OnPolicy));
        RegisterTask(new FixtureTask("start" + Framework::Engine::Instance().config().getString(
                                                   "sound.volume", "")),
                     true);
#ifdef FIXTURE_INIT_FAILS
        return 1;
#else
        return Module::Init();
#endif
    }
    void UnInit() override {
        Framework::Log().information("the fixture ends");
        Module::UnInit();
    }

    std::vector<std::string> ConfigurationKeys() const override {
        return {"sound.volume"};
    }
    std::string CommandName() const override {
        return "sing";
    }
    int RunCommand(const std::vector<std::string>& arguments) override {
        return static_cast<int>(arguments.size());
    }

private:
    Framework::Policy* OnPolicy(const std::string& /*key*/, const std::string& text,
                                Framework::Policy*& /*current*/) {
        RegisterTask(new FixtureTask(text), true);
        return text == "bad" ? nullptr : new FixturePolicy("feature");
    }
};

}  // namespace

extern "C" void* CreateModule();

void* CreateModule() {
#ifdef FIXTURE_FACTORY_NULL
    return nullptr;
#else
    return static_cast<Framework::Module*>(new FixtureModule);
#endif
}

#endif
