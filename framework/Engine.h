#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Util/ServerApplication.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "framework/Module.h"
#include "framework/State.h"
#include "framework/Task.h"
#include "framework/TaskThread.h"

namespace Framework {

// The application: loads modules, delivers policy documents to them, and runs tasks. One object a
// process, made before anything else of the framework is used. Its config() has the agent's
// settings, those without a value left out, and the keys of modules; getRawString reads them.
class Engine : public Poco::Util::ServerApplication {
public:
    // Stops what still runs.
    ~Engine() override;

    // The process's engine. Raises Poco's null-pointer bug check when no application exists.
    static Engine& Instance();

    // The running task of that name, or null. The pointer keeps the object alive, not running.
    // Any thread.
    Poco::AutoPtr<Task> FindTask(const std::string& name);

    // Gives the task its thread and waits for its Init. False, with an error line, when Init
    // fails or a task of that name runs already, and without one at a stop; the task is then gone.
    // The first throws Poco::SystemException when no thread can be had.
    bool StartTask(Poco::AutoPtr<Task> task);
    bool StartTask(const std::shared_ptr<TaskThread>& thread);
    // Stops the task and waits until it has ended. Unknown names are ignored. Any thread but a
    // task's, several at once too.
    void StopTask(const std::string& name);

    // Logs an error line, the first time for each name. Any thread.
    void ReportUnknownReceiver(const std::string& name);

    // Loads every *.so of `directory` in name order and, with `initialise`, its module is
    // initialised. What cannot be loaded, or may have been written by others
    // (sdk/Trust.h), is an error line and the rest go on. The directory is the caller's choice.
    // Throws Poco::Exception when the directory cannot be read.
    void LoadModules(const std::string& directory, bool initialise = true);
    // Those loaded, in that order. Any thread.
    std::vector<Poco::AutoPtr<Module>> Modules();
    // Whether that are all. Any thread.
    bool HasLoadedModules() const { return loaded_; }
    // How the agent fares. What a module throws about its conditions or figures is a condition that
    // is not good. Any thread.
    State GetState();

    // Hands a document to each module with a callback for `type`, for the next EnforcePolicies to
    // put to work. Both on one thread at a time.
    void DeliverPolicy(const std::string& type, const std::string& key, const std::string& text);
    // A refused document is part of the state until one of its key is accepted, or its key is
    // forgotten: its file has gone. DeliverPolicy refuses by itself. Any thread.
    void RefusePolicy(const std::string& key, const std::string& why);
    void ForgetPolicy(const std::string& key);
    // Puts to work what the modules have accepted since the previous call, and what that could not
    // start.
    void EnforcePolicies();
    // From here on no task starts, so that a delivery in progress ends without one. Any thread.
    void RefuseTasks() { stopping_ = true; }
    bool IsStopping() const { return stopping_; }
    // Ends the modules one by one, each with its tasks; those not initialised just go.
    void StopModules();

private:
    void LoadModule(const std::string& path, bool initialise);

    std::atomic<bool> stopping_{false};
    std::atomic<bool> loaded_{false};
    bool initialised_ = false;  // the modules
    std::mutex mutex_;          // guards the rest; the main thread, which alone alters the modules,
                                // and the policy thread read those without
    std::vector<Poco::AutoPtr<Module>> modules_;
    std::map<std::string, std::shared_ptr<TaskThread>> tasks_;
    std::set<std::string> unknown_receivers_;
    std::map<std::string, RefusedPolicy> refused_;
    Deliveries deliveries_;
};

}  // namespace Framework
