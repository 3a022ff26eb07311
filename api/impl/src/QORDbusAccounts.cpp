// The accounts of what senders of calls, and their users, cost an endpoint.
#include "QORDbusAccounts.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include <qor/GlibTypes.h>

#include "QORDbusMessage.h"

namespace qor
{

namespace
{

// An answer that is not written by then is not waited for, and one that is not written by then will
// never be.
constexpr gint64 WRITE_US = 2 * G_TIME_SPAN_SECOND;
constexpr gint64 LOST_US = 60 * G_TIME_SPAN_SECOND;

} // namespace

TCDbusAccounts::TSOpenCall::TSOpenCall(GDBusMessage* pMessage, std::string sender, std::size_t size,
                                       bool isForeign)
    : m_message(), m_sender(std::move(sender)), m_size(size), m_isForeign(isForeign)
{
    g_weak_ref_init(&m_message, pMessage);
}

TCDbusAccounts::TSOpenCall::~TSOpenCall()
{
    g_weak_ref_clear(&m_message);
}

bool TCDbusAccounts::TSOpenCall::IsGone()
{
    const TGlibPtr<GDBusMessage> pMessage(static_cast<GDBusMessage*>(g_weak_ref_get(&m_message)));
    return pMessage == nullptr;
}

TCDbusAccounts::TSSender& TCDbusAccounts::Get(const std::string& name)
{
    const auto [found, isNew] = m_senders.try_emplace(name);
    if (isNew)
    {
        found->second.m_since = g_get_monotonic_time();
    }
    return found->second;
}

TCDbusAccounts::TSSender* TCDbusAccounts::Find(const std::string& name)
{
    const auto found = m_senders.find(name);
    return found == m_senders.end() ? nullptr : &found->second;
}

void TCDbusAccounts::Open(TSSender& sender, GDBusMessage* pCall, std::size_t size, bool isOurs)
{
    const char* name = g_dbus_message_get_sender(pCall);
    if (WantsAnswer(pCall))
    {
        sender.m_open.emplace(std::piecewise_construct,
                              std::forward_as_tuple(g_dbus_message_get_serial(pCall)),
                              std::forward_as_tuple(pCall, name, size, !isOurs));
    }
    else if (isOurs)
    {
        m_silent.emplace_back(pCall, name, size, false);
    }
    if (isOurs)
    {
        m_Count(sender, size);
    }
    else if (WantsAnswer(pCall))
    {
        ++m_foreign;
    }
}

bool TCDbusAccounts::Close(TSSender& sender, std::uint32_t serial)
{
    const auto [first, last] = sender.m_open.equal_range(serial);
    if (first == last)
    {
        return false;
    }
    const auto isHandled = [](const auto& call) { return call.second.m_isHandled; };
    auto answered = std::find_if(first, last, isHandled);
    answered = answered == last ? first : answered;
    m_End(sender, answered);
    return true;
}

void TCDbusAccounts::m_End(TSSender& sender, TOpenCalls::iterator call)
{
    m_handled.remove(&call->second);
    if (call->second.m_isForeign)
    {
        --m_foreign;
    }
    else
    {
        m_Discount(sender, call->second.m_size);
    }
    sender.m_open.erase(call);
}

void TCDbusAccounts::SetHandled(TSSender& sender, std::uint32_t serial)
{
    const auto [first, last] = sender.m_open.equal_range(serial);
    const auto call =
        std::find_if(first, last, [](const auto& open) { return !open.second.m_isHandled; });
    if (call != last)
    {
        call->second.m_isHandled = true;
        m_handled.push_back(&call->second);
    }
}

bool TCDbusAccounts::m_IsGoneFor(TSOpenCall& call, gint64 microseconds)
{
    const gint64 now = g_get_monotonic_time();
    if (call.m_goneSince == 0 && call.IsGone())
    {
        call.m_goneSince = now;
    }
    return call.m_goneSince != 0 && now - call.m_goneSince >= microseconds;
}

std::size_t TCDbusAccounts::Unwritten()
{
    return static_cast<std::size_t>(std::count_if(m_handled.begin(), m_handled.end(),
                                                  [](TSOpenCall* pCall) {
                                                      return m_IsGoneFor(*pCall, 0) &&
                                                             !m_IsGoneFor(*pCall, WRITE_US);
                                                  }));
}

void TCDbusAccounts::DropLost()
{
    const std::list<TSOpenCall*> handled = m_handled;
    for (TSOpenCall* pCall : handled)
    {
        if (m_IsGoneFor(*pCall, LOST_US))
        {
            TSSender& sender = m_senders[pCall->m_sender];
            m_End(sender,
                  std::find_if(sender.m_open.begin(), sender.m_open.end(),
                               [pCall](const auto& call) { return &call.second == pCall; }));
        }
    }
}

void TCDbusAccounts::DropSilent(bool isWhole)
{
    for (auto call = m_silent.begin(); call != m_silent.end();)
    {
        if (call->IsGone())
        {
            m_Discount(m_senders[call->m_sender], call->m_size);
            call = m_silent.erase(call);
        }
        else if (isWhole)
        {
            ++call;
        }
        else
        {
            return;
        }
    }
}

void TCDbusAccounts::AddUnread(TSSender& sender, std::size_t size)
{
    sender.m_own.m_unread += size;
    m_all.m_unread += size;
    if (sender.m_pUser != nullptr)
    {
        sender.m_pUser->m_unread += size;
    }
}

void TCDbusAccounts::SubtractUnread(TSSender& sender, std::size_t size)
{
    sender.m_own.m_unread -= size;
    m_all.m_unread -= size;
    if (sender.m_pUser != nullptr)
    {
        sender.m_pUser->m_unread -= size;
    }
}

void TCDbusAccounts::SetPinged(TSSender& sender, bool isPinged)
{
    sender.m_isPinged = isPinged;
    sender.m_atPing = sender.m_own.m_unread;
    for (TSDbusAccount* pAccount : {&sender.m_own, sender.m_pUser.get(), &m_all})
    {
        if (pAccount != nullptr)
        {
            pAccount->m_pings = isPinged ? pAccount->m_pings + 1 : pAccount->m_pings - 1;
        }
    }
}

void TCDbusAccounts::SetStranger(TSSender& sender)
{
    m_Move(sender, m_strangers);
}

void TCDbusAccounts::SetUser(TSSender& sender, std::uint32_t userId)
{
    std::shared_ptr<TSDbusAccount>& user = m_users[userId];
    if (user == nullptr)
    {
        user = std::make_shared<TSDbusAccount>();
    }
    m_Move(sender, user);
}

void TCDbusAccounts::SetOwn(TSSender& sender)
{
    m_Move(sender, nullptr);
}

void TCDbusAccounts::m_Move(TSSender& sender, const std::shared_ptr<TSDbusAccount>& user)
{
    const TSDbusAccount& own = sender.m_own;
    if (sender.m_pUser != nullptr)
    {
        sender.m_pUser->m_calls -= own.m_calls;
        sender.m_pUser->m_bytes -= own.m_bytes;
        sender.m_pUser->m_unread -= own.m_unread;
        sender.m_pUser->m_pings -= own.m_pings;
    }
    if (user != nullptr)
    {
        user->m_calls += own.m_calls;
        user->m_bytes += own.m_bytes;
        user->m_unread += own.m_unread;
        user->m_pings += own.m_pings;
    }
    sender.m_pUser = user;
}

void TCDbusAccounts::DropQuiet(gint64 microseconds)
{
    DropSilent(true);
    DropLost();
    const gint64 end = g_get_monotonic_time() - microseconds;
    for (auto i = m_senders.begin(); i != m_senders.end();)
    {
        const TSDbusAccount& own = i->second.m_own;
        const bool isQuiet = own.m_calls == 0 && i->second.m_open.empty() && own.m_unread == 0 &&
                             !i->second.m_isPinged && own.m_lastRefusal < end &&
                             i->second.m_since < end;
        i = isQuiet ? m_senders.erase(i) : std::next(i);
    }
    for (auto i = m_users.begin(); i != m_users.end();)
    {
        const bool isQuiet = i->second.use_count() == 1 && i->second->m_lastRefusal < end;
        i = isQuiet ? m_users.erase(i) : std::next(i);
    }
}

void TCDbusAccounts::m_Count(TSSender& sender, std::size_t size)
{
    for (TSDbusAccount* pAccount : {&sender.m_own, sender.m_pUser.get(), &m_all})
    {
        if (pAccount != nullptr)
        {
            ++pAccount->m_calls;
            pAccount->m_bytes += size;
        }
    }
}

void TCDbusAccounts::m_Discount(TSSender& sender, std::size_t size)
{
    for (TSDbusAccount* pAccount : {&sender.m_own, sender.m_pUser.get(), &m_all})
    {
        if (pAccount != nullptr)
        {
            --pAccount->m_calls;
            pAccount->m_bytes -= size;
        }
    }
}

} // namespace qor
