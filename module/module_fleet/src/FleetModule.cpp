#include <memory>

#include "framework/Engine.h"
#include "framework/Module.h"
#include "module/module_fleet/src/FleetCommand.h"
#include "module/module_fleet/src/FleetMember.h"

namespace Fleet {

namespace {

// Makes this host one of a fleet when the configuration names the fleet's servers, and otherwise
// does nothing.
class FleetModule : public Framework::Module {
public:
    FleetModule() : Framework::Module("fleet_module") {}

    int Init() override {
        Settings settings = ReadSettings();
        if (!settings.servers.empty()) {
            const auto& config = Framework::Engine::Instance().config();
            const auto path = [&](const std::string& key, const std::string& name) {
                return config.getRawString(key) + name;
            };
            member_ = std::make_unique<FleetMember>(
                std::move(settings), FleetMember::Files{path("report.file", ""),
                                                        path("log.dir", "/watchpost_fleet.json"),
                                                        path("policy.dir", "/fleet.json")});
        }
        return Framework::Module::Init();
    }
    void UnInit() override {
        member_.reset();
        Framework::Module::UnInit();
    }

    std::vector<std::string> ConfigurationKeys() const override { return SettingKeys(); }
    std::string CommandName() const override { return "fleet"; }
    int RunCommand(const std::vector<std::string>& arguments) override {
        return RunFleetCommand(arguments);
    }
    std::vector<Framework::Condition> Conditions() override {
        return member_ == nullptr ? std::vector<Framework::Condition>() : member_->Conditions();
    }
    Framework::Figures GetFigures() override {
        if (member_ == nullptr) {
            return {};
        }
        const PublisherCounts counts = member_->Counts();
        return {{{"reports_published", counts.published},
                 {"reports_left_out", counts.left_out},
                 {"reports_shortened", counts.shortened}},
                {}};
    }

private:
    std::unique_ptr<FleetMember> member_;
};

}  // namespace

}  // namespace Fleet

extern "C" void* CreateModule() {
    return static_cast<Framework::Module*>(new Fleet::FleetModule);
}
