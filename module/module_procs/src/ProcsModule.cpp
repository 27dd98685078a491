#include "framework/Module.h"
#include "module/module_procs/src/ProcsFullTask.h"

namespace Engine {

namespace {

// Supplies the process table; see ProcsFullTask.
class ProcsModule : public Framework::Module {
public:
    ProcsModule() : Framework::Module("procs_module") {}

    int Init() override {
        RegisterTask(new ProcsFullTask, true);
        return Framework::Module::Init();
    }
};

}  // namespace

}  // namespace Engine

extern "C" void* CreateModule() {
    return static_cast<Framework::Module*>(new Engine::ProcsModule);
}
