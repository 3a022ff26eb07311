// Waits until the applications have heard of a policy.
#include "qorctl/Hearing.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "common/ExitStatus.h"
#include "qorctl/Message.h"
#include "qorctl/ServiceCall.h"
#include "qorctl/StatusWords.h"

namespace qorctl
{
namespace
{

using TClock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds FIRST_PAUSE(50);
constexpr std::chrono::milliseconds LAST_PAUSE(500);
constexpr char NOT_TOLD[] = "the service does not tell";

// How things stood when the service was last asked.
struct TSHearing
{
    std::string m_unknown; ///< Why nothing is known; empty where it is.
    bool m_isOver = false; ///< It does not change any more.
    std::size_t m_listening = 0;
    TJson m_notHeard = TJson::array();
};

// Of the last event, where it says something about the client.
TJson Outcome(const TJson& status, const TJson& client)
{
    for (const TJson& missed : Part(Part(status, "last_event"), "missed"))
    {
        if (Part(missed, "name") == Part(client, "name"))
        {
            return Part(missed, "outcome");
        }
    }
    return {};
}

TSHearing Judge(const TJson& status, const TJson& sha256)
{
    TSHearing hearing;
    hearing.m_isOver = true;
    const TJson inForce = Part(Part(status, "policy"), "sha256");
    if (inForce != sha256)
    {
        hearing.m_unknown = inForce.is_null() ? NOT_TOLD : "another policy has come into force";
        return hearing;
    }
    for (const TJson& client : Part(status, "clients"))
    {
        if (!IsListening(client))
        {
            continue;
        }
        ++hearing.m_listening;
        const TJson heard = Part(client, "heard");
        if (!heard.is_boolean())
        {
            hearing.m_unknown = NOT_TOLD;
        }
        else if (heard == false)
        {
            hearing.m_isOver = false;
            hearing.m_notHeard.push_back({{"name", Part(client, "name")},
                                          {"program", Part(client, "program")},
                                          {"process_id", Part(client, "process_id")},
                                          {"outcome", Outcome(status, client)}});
        }
    }
    return hearing;
}

// A service that is started anew announces the policy again, so that its absence is waited for.
TSHearing Look(const TSOptions& options, const TJson& sha256, std::chrono::milliseconds atMost)
{
    qor::TSSendResult result;
    const TJson status = AskStatus(options, result, atMost);
    if (status.is_object())
    {
        return Judge(status, sha256);
    }
    TSHearing hearing;
    hearing.m_unknown = WhyNot(result);
    return hearing;
}

int Report(const TSOptions& options, const TSHearing& hearing)
{
    const std::string listening = std::to_string(hearing.m_listening) +
                                  (hearing.m_listening == 1 ? " application" : " applications");
    if (!hearing.m_unknown.empty())
    {
        SayError("it is not known who has heard of it: " + hearing.m_unknown);
        return tools::EXIT_NOT_HEARD;
    }
    if (hearing.m_notHeard.empty())
    {
        Say(options.m_quiet || options.m_json,
            hearing.m_listening == 0 ? "No application listens." : listening + " heard of it.");
        return tools::EXIT_OK;
    }
    std::string who;
    for (const TJson& client : hearing.m_notHeard)
    {
        who += (who.empty() ? "" : ", ") + Client(client, Text(client, "outcome"));
    }
    SayError(std::to_string(hearing.m_notHeard.size()) + " of " + listening +
             " did not hear of it in time: " + who);
    return tools::EXIT_NOT_HEARD;
}

} // namespace

int WaitUntilHeard(const TSOptions& options, TJson& told)
{
    const auto endpoint = Endpoint(options); // one for all that is asked
    const auto end = TClock::now() + TimeLeft(std::chrono::seconds(options.m_waitSeconds));
    const auto left = [end]
    {
        const auto time =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - TClock::now());
        return std::max(time, std::chrono::milliseconds(0));
    };
    const TJson sha256 = told["sha256"];
    TSHearing hearing = Look(options, sha256, left());
    for (auto pause = FIRST_PAUSE; !hearing.m_isOver && left().count() > 0;
         pause = std::min(2 * pause, LAST_PAUSE))
    {
        std::this_thread::sleep_for(std::min(pause, left()));
        TSHearing latest = Look(options, sha256, left());
        if (latest.m_unknown.empty() || latest.m_isOver || !hearing.m_unknown.empty())
        {
            hearing = std::move(latest); // what was known stays so, whatever answers no more
        }
    }
    const bool isKnown = hearing.m_unknown.empty();
    told["applications"] = isKnown ? TJson(hearing.m_listening) : TJson();
    told["not_heard"] = isKnown ? hearing.m_notHeard : TJson();
    return Report(options, hearing);
}

} // namespace qorctl
