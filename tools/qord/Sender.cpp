// Who is behind a name on the bus, in words.
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

void AskForUserName(TSSender& sender)
{
    if (sender.m_userName.empty())
    {
        sender.m_userName = tools::UserName(sender.m_userId);
    }
}

std::string Describe(const TSSender& sender)
{
    return "user " + std::to_string(sender.m_userId) + " (" + sender.m_userName + "), process " +
           std::to_string(sender.m_processId) + " (" + sender.m_program + ")";
}

} // namespace qord
