#include "framework/Engine.h"

#include <Poco/DirectoryIterator.h>
#include <Poco/Exception.h>
#include <Poco/Path.h>
#include <Poco/SharedLibrary.h>
#include <sys/stat.h>

#include <utility>

#include "framework/Log.h"
#include "sdk/Trust.h"

namespace Framework {

namespace {

constexpr std::size_t kMaxRefused = 1000;

// Runs `step`; an exception becomes an error line that starts with `what`.
template <typename Step>
bool Try(const std::string& what, Step step) {
    try {
        step();
        return true;
    } catch (...) {
        LogException({what});
    }
    return false;
}

}  // namespace

Engine::~Engine() {
    StopModules();
    while (!tasks_.empty()) {
        StopTask(std::string(tasks_.begin()->first));
    }
}

Engine& Engine::Instance() {
    return static_cast<Engine&>(Poco::Util::Application::instance());
}

Poco::AutoPtr<Task> Engine::FindTask(const std::string& name) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = tasks_.find(name);
    return found == tasks_.end() ? Poco::AutoPtr<Task>() : found->second->GetTask();
}

bool Engine::StartTask(Poco::AutoPtr<Task> task) {
    return !stopping_ && StartTask(std::make_shared<TaskThread>(std::move(task)));
}

bool Engine::StartTask(const std::shared_ptr<TaskThread>& thread) {
    if (stopping_) {
        return false;
    }
    Poco::AutoPtr<Task> task = thread->GetTask();
    const std::string name = task->name();
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!tasks_.emplace(name, thread).second) {
            Log().error("task " + name + " not started: one of that name runs already");
            return false;
        }
    }
    thread->Begin();
    if (task->WaitForInit()) {
        return true;
    }
    Log().error("task " + name + " not started: its Init failed");
    StopTask(name);
    return false;
}

void Engine::StopTask(const std::string& name) {
    std::shared_ptr<TaskThread> running;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = tasks_.find(name);
        if (found == tasks_.end()) {
            return;
        }
        running = found->second;
    }
    running->GetTask()->RequestStop();
    // Joined before it leaves the map: what the task does on its way out can still find others,
    // and others it.
    running->Join();
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = tasks_.find(name);
    if (found != tasks_.end() && found->second == running) {
        tasks_.erase(found);
    }
}

void Engine::ReportUnknownReceiver(const std::string& name) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (unknown_receivers_.insert(name).second) {
        Log().error("messages for the task " + name + " are dropped: it does not run");
    }
}

void Engine::LoadModules(const std::string& directory, bool initialise) {
    std::set<std::string> paths;
    for (Poco::DirectoryIterator entry(directory), end; entry != end; ++entry) {
        if (entry.path().getExtension() == "so") {
            paths.insert(entry.path().toString());
        }
    }
    initialised_ = initialise;
    for (const auto& path : paths) {
        LoadModule(path, initialise);
    }
    loaded_ = true;
}

void Engine::LoadModule(const std::string& path, bool initialise) {
    // Destroying a Poco::SharedLibrary leaves the library mapped: code of a module may run until
    // the process ends.
    const std::size_t before = modules_.size();
    const bool loaded = Try("module " + path + " not loaded", [&] {
        // Of a link, what it leads to; nobody else can alter the directory.
        struct stat file = {};
        if (stat(path.c_str(), &file) == 0) {
            if (const std::string why_not = SDK::Trust::WhyNot(file); !why_not.empty()) {
                throw Poco::NoPermissionException(why_not);
            }
        }
        Poco::SharedLibrary library;
        library.load(path, Poco::SharedLibrary::SHLIB_LOCAL);
        auto* const create = reinterpret_cast<void* (*)()>(library.getSymbol("CreateModule"));
        Poco::AutoPtr<Module> module(static_cast<Module*>(create()));
        if (!module) {
            throw Poco::NullPointerException("CreateModule returned no module");
        }
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            modules_.push_back(module);
        }
        if (const int status = initialise ? module->Init() : 0; status != 0) {
            throw Poco::RuntimeException("Init returned " + std::to_string(status));
        }
    });
    if (loaded) {
        Log().information("module " + path + " loaded");
    } else if (modules_.size() > before) {
        // What its Init had started does not outlive the module. Not its own UnInit: it was never
        // initialised.
        modules_.back()->Module::UnInit();
        const std::lock_guard<std::mutex> lock(mutex_);
        modules_.pop_back();
    }
}

std::vector<Poco::AutoPtr<Module>> Engine::Modules() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return modules_;
}

State Engine::GetState() {
    State state;
    std::vector<Poco::AutoPtr<Task>> tasks;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& [name, thread] : tasks_) {
            tasks.push_back(thread->GetTask());
        }
        for (const auto& [key, refused] : refused_) {
            state.refused.push_back(refused);
        }
        state.deliveries = deliveries_;
    }
    for (const auto& task : tasks) {
        state.tasks.push_back(task->GetStatus());
    }
    std::vector<Poco::AutoPtr<Module>> modules = Modules();
    for (auto& module : modules) {
        const std::string name = module->name();
        for (auto& policy : module->PoliciesInForce()) {
            state.policies.push_back(std::move(policy));
        }
        std::vector<Condition> conditions;
        try {
            state.figures.push_back({name, module->GetFigures()});
            conditions = module->Conditions();
        } catch (...) {
            conditions = {{name, false, DescribeException()}};
        }
        for (auto& condition : conditions) {
            state.conditions.push_back({name, std::move(condition)});
        }
    }
    return state;
}

void Engine::DeliverPolicy(const std::string& type, const std::string& key,
                           const std::string& text) {
    bool accepted = false;
    std::string why;
    for (auto& module : modules_) {
        try {
            const Delivery delivery = module->DeliverPolicy(type, key, text);
            accepted = accepted || delivery.accepted;
            why = why.empty() ? delivery.refusal : why;
        } catch (...) {
            why = DescribeException();
            LogException({"policy ", key, " not taken by module ", module->name()});
        }
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ++(accepted ? deliveries_.accepted : deliveries_.refused);
    }
    if (accepted) {
        ForgetPolicy(key);
        return;
    }
    if (why.empty()) {
        why = "no module takes policies of its type";
        Log().error("policy " + key + " refused: " + why);
    }
    RefusePolicy(key, why);
}

void Engine::RefusePolicy(const std::string& key, const std::string& why) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (refused_.size() < kMaxRefused || refused_.count(key) != 0) {
        refused_[key] = {key, Poco::Timestamp(), why};
    }
}

void Engine::ForgetPolicy(const std::string& key) {
    const std::lock_guard<std::mutex> lock(mutex_);
    refused_.erase(key);
}

void Engine::EnforcePolicies() {
    for (auto& module : modules_) {
        Try(std::string("policies of module ") + module->name() + " not put to work",
            [&] { module->EnforcePolicies(); });
    }
}

void Engine::StopModules() {
    // In reverse order of loading: a module's tasks may use those of modules before it.
    for (auto module = modules_.rbegin(); initialised_ && module != modules_.rend(); ++module) {
        Try(std::string("module ") + (*module)->name() + " did not stop in order",
            [&] { (*module)->UnInit(); });
    }
    std::vector<Poco::AutoPtr<Module>> gone;
    const std::lock_guard<std::mutex> lock(mutex_);
    gone.swap(modules_);
}

}  // namespace Framework
