#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Util/Subsystem.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "framework/Finding.h"
#include "framework/HostChange.h"
#include "framework/PolicyCallback.h"
#include "framework/State.h"
#include "framework/Task.h"

namespace Framework {

// What became of a document at one module. Neither: the module has no callback for it.
struct Delivery {
    bool accepted = false;
    std::string refusal;  // why it was refused
};

// A plug-in of the agent. Its library exports `extern "C" void* CreateModule()`, which returns a
// new Framework::Module. Init and UnInit are called on the agent's main thread, documents are
// delivered on the policy thread, never at the same time.
class Module : public Poco::Util::Subsystem {
public:
    explicit Module(const std::string& name);

    const char* name() const override;

    // An overriding Init or UnInit calls this one. 0 is success.
    virtual int Init();
    // Stops every task of the module that still runs.
    virtual void UnInit();

    // Hands a document to the callback registered for `type`. Returns the new policy, which the
    // caller owns, or null when there is no callback or the document is refused.
    virtual Policy* RefreshPolicy(const std::string& type, const std::string& key,
                                  const std::string& text, Policy*& current);

    // The keys of the configuration file that this module reads, with Engine::config(). Each begins
    // with a word of the module's own and a dot. A key that nobody reads is a mistake.
    virtual std::vector<std::string> ConfigurationKeys() const;

    // The name of a command of the module's own, `watchpost NAME ...`; empty: it has none.
    virtual std::string CommandName() const;
    // Runs that command, with what stands behind its name; --help is the module's to answer, and
    // standard output its to write. The exit status. What is thrown ends the program as a start
    // that fails does: Poco::Util::OptionException for a mistake in the command line.
    virtual int RunCommand(const std::vector<std::string>& arguments);

    // What follows changes nothing and needs no Init, unless it says so.

    // Adds what there is to say of a document of `type`, with `host` also on this host as it is
    // now, and returns true; false when the module takes no such documents. Any thread, one at a
    // time.
    virtual bool JudgePolicy(const std::string& type, const std::string& text, bool host,
                             std::vector<Finding>& findings);
    // The same for threads that do not know of each other: one waits for the other.
    bool JudgeInTurn(const std::string& type, const std::string& text, bool host,
                     std::vector<Finding>& findings);
    // What the document would do to this host. After Init of all modules.
    virtual HostChange PreviewPolicy(const std::string& type, const std::string& text);
    // How the host fares with what the policy in force wants of it. Any thread.
    virtual std::vector<Condition> Conditions();
    // What it has counted, and when what it does last went well. Any thread.
    virtual Figures GetFigures();
    // Takes back what policies have made of the host's configuration, or, planned only, tells what
    // that would be. No task runs meanwhile. What fails throws Poco::Exception.
    virtual HostChange Restore(bool planned_only);

    // Takes one document, for which there is a callback, once judged: each finding is a line of the
    // log. The policy it gives waits for EnforcePolicies, in the place of one that waits already.
    // What is refused, by a finding, here with an error line, or by the callback, changes nothing.
    Delivery DeliverPolicy(const std::string& type, const std::string& key,
                           const std::string& text);

    // Puts each policy that waits into force: the tasks of the previous one end, then those
    // registered with the document start; returns when that is done. Where no thread can be had for
    // them, nothing ends and the policy waits on, with an error line the first time.
    void EnforcePolicies();

    // One for each policy type at most. Any thread.
    std::vector<PolicyState> PoliciesInForce() const;

protected:
    // A document of `type` from now on goes to `callback`, which the module then owns. A null
    // callback gets no documents.
    void RegisterPolicyCallback(const std::string& type, AbstractPolicyCallback* callback);
    void UnRegisterPolicyCallback(const std::string& type);

    // Takes ownership of `task`. start_now: the task needs no policy and starts at once.
    // Otherwise it belongs to the delivery in progress: it starts with that delivery's policy, or
    // is dropped with it.
    void RegisterTask(Task* task, bool start_now);

    // For an application that keeps its modules as subsystems: Init and UnInit.
    void initialize(Poco::Util::Application& app) override;
    void uninitialize() override;

    ~Module() override = default;

private:
    // An accepted policy, not yet in force, with the tasks that are to follow it.
    struct Candidate {
        std::string key;
        std::unique_ptr<FeaturePolicy> policy;
        std::vector<Poco::AutoPtr<Task>> tasks;
        std::vector<Finding> findings;
        bool failed = false;  // no thread could be had for the tasks
    };
    // One policy type: its callback, what is in force through it, and what is to follow.
    struct Feature {
        std::unique_ptr<AbstractPolicyCallback> callback;
        bool withdrawn = false;
        std::unique_ptr<FeaturePolicy> policy;
        std::vector<std::string> tasks;
        Candidate next;
    };

    // What there is to say of a document, said to the log.
    std::vector<Finding> Judged(const std::string& type, const std::string& key,
                                const std::string& text);
    // The policy that a document gives, or null when it is refused.
    std::unique_ptr<FeaturePolicy> Accepted(const std::string& type, const std::string& key,
                                            const std::string& text, Policy* current,
                                            std::string& refusal);
    void LogRefusal(const std::string& key, const std::string& refusal) const;
    // Ends a delivery that changes nothing.
    void Refuse(Feature& feature);
    void Enforce(const std::string& type, Feature& feature);
    // Why a policy cannot drive the tasks registered with it; empty when it can.
    std::string Refusal(const FeaturePolicy& policy) const;
    static void StopTasks(std::vector<std::string>& names);

    const std::string name_;
    std::map<std::string, Feature> features_;
    std::vector<std::string> own_tasks_;
    std::vector<Poco::AutoPtr<Task>> registered_;
    std::mutex judge_mutex_;          // held while the module judges
    mutable std::mutex state_mutex_;  // guards what follows
    std::map<std::string, PolicyState> in_force_;
};

}  // namespace Framework
