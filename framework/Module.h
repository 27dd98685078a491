#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Util/Subsystem.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "framework/PolicyCallback.h"
#include "framework/Task.h"

namespace Framework {

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

    // Delivers one document and puts the policy it gives into force: the tasks of the previous
    // policy end, then those registered during the delivery start. What is refused, here with an
    // error line or by the callback, changes nothing that runs. Returns when the change is done.
    void DeliverPolicy(const std::string& type, const std::string& key, const std::string& text);

protected:
    // A document of `type` from now on goes to `callback`, which the module then owns. A null
    // callback gets no documents.
    void RegisterPolicyCallback(const std::string& type, AbstractPolicyCallback* callback);
    void UnRegisterPolicyCallback(const std::string& type);

    // Takes ownership of `task`. start_now: the task needs no policy and starts at once.
    // Otherwise it belongs to the delivery in progress: it starts with that delivery's policy, or
    // is dropped when the document is refused.
    void RegisterTask(Task* task, bool start_now);

    // For an application that keeps its modules as subsystems: Init and UnInit.
    void initialize(Poco::Util::Application& app) override;
    void uninitialize() override;

    ~Module() override = default;

private:
    // One policy type: its callback and what is in force through it.
    struct Feature {
        std::unique_ptr<AbstractPolicyCallback> callback;
        std::unique_ptr<FeaturePolicy> policy;
        std::vector<std::string> tasks;
    };

    // The policy that a document gives, or null when it is refused.
    std::unique_ptr<FeaturePolicy> Accepted(const std::string& type, const std::string& key,
                                            const std::string& text, Policy* current);
    // Ends a delivery that changes nothing.
    void KeepInForce(Feature& feature);
    // Why a policy cannot drive the tasks registered with it; empty when it can.
    std::string Refusal(const FeaturePolicy& policy) const;
    static void StopTasks(std::vector<std::string>& names);

    const std::string name_;
    std::map<std::string, Feature> features_;
    std::vector<std::string> own_tasks_;
    std::vector<Poco::AutoPtr<Task>> registered_;
};

}  // namespace Framework
