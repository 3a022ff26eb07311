// The user and process of a name on the bus, in words.
#include "qord/Sender.h"

#include <fstream>
#include <iterator>

#include "common/Text.h"

namespace qord
{
namespace
{

std::string ProgramOf(pid_t processId)
{
    std::ifstream file("/proc/" + std::to_string(processId) + "/comm", std::ios::binary);
    std::string name(std::istreambuf_iterator<char>(file), {});
    name.resize(name.empty() ? 0 : name.size() - 1); // its newline
    return tools::Printable(name);
}

} // namespace

TSSender SenderOf(const qor::TSPeer& peer)
{
    TSSender sender;
    sender.m_userId = peer.m_userId;
    sender.m_processId = peer.m_processId;
    sender.m_program = peer.m_processId == 0 ? "" : ProgramOf(peer.m_processId);
    return sender;
}

void AskForUserName(TSSender& sender, TCUserDatabase& users, TCUserDatabase::TPatience patience)
{
    if (sender.m_userName.empty())
    {
        sender.m_userName = users.UserName(sender.m_userId, patience).value_or("");
    }
}

std::string UserOf(const TSSender& sender)
{
    return sender.m_userName.empty() ? std::to_string(sender.m_userId) : sender.m_userName;
}

std::string Describe(const TSSender& sender)
{
    const std::string name = sender.m_userName.empty() ? "" : " (" + sender.m_userName + ")";
    return "user " + std::to_string(sender.m_userId) + name + ", process " +
           std::to_string(sender.m_processId) + " (" + sender.m_program + ")";
}

} // namespace qord
