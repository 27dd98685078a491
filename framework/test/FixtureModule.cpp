#include <exception>

#include "framework/Module.h"

// One source, built into several modules: the definition FIXTURE_<kind> says what is wrong with it.
// FIXTURE_SOUND starts the task "start", and a task named after the text of each document; a task
// reports its name when it starts and "end" when it ends.
#ifndef FIXTURE_FACTORY_MISSING

namespace {

class FixtureTask : public Framework::Task {
public:
    explicit FixtureTask(const std::string& name)
        : Task(name, "", Framework::TaskCondition::kPeriodic, 8) {}
    int Init() override {
        Report(name());
        return 1;
    }
    void UnInit() override { Report("end"); }

private:
    void Report(const std::string& text) {
        SendDirectMsg("data_comm_report_task",
                      std::make_shared<Framework::DataMessage>("fixture", text));
    }
};

class FixtureModule : public Framework::Module {
public:
    FixtureModule() : Module("fixture") {}
    int Init() override {
        RegisterPolicyCallback(
            "10001", new Framework::PolicyCallback<FixtureModule>(this, &FixtureModule::OnPolicy));
        RegisterTask(new FixtureTask("start"), true);
#ifdef FIXTURE_INIT_FAILS
        return 1;
#else
        return Module::Init();
#endif
    }

private:
    Framework::Policy* OnPolicy(const std::string& /*key*/, const std::string& text,
                                Framework::Policy*& /*current*/) {
        if (text == "throw") {
            throw std::exception();
        }
        RegisterTask(new FixtureTask(text), true);
        return nullptr;
    }
};

// A type of this library alone: whoever logs it needs the library still mapped.
struct [[maybe_unused]] FactoryFault : std::exception {
    const char* what() const noexcept override { return "the factory failed"; }
};

}  // namespace

extern "C" void* CreateModule();

void* CreateModule() {
#if defined(FIXTURE_FACTORY_THROWS)
    throw FactoryFault();
#elif defined(FIXTURE_FACTORY_NULL)
    return nullptr;
#else
    return static_cast<Framework::Module*>(new FixtureModule);
#endif
}

#endif
