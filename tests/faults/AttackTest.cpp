// An ordinary user attacks the service. Meanwhile root's policies are stored, the service manager
// sees that the service is alive, and its memory and its log stay bounded.
//
// QOR_TEST_LONG=1 on a machine that does nothing else: long attacks, and the limits that hold
// there.
#include <ctime>
#include <deque>

#include "Attacker.h"
#include "FaultSupport.h"
#include "MuteBus.h"
#include "ServerFixture.h"
#include "ToolRunner.h"

namespace
{

using namespace qortest;

const bool IS_LONG = std::getenv("QOR_TEST_LONG") != nullptr;
const double LIMIT = IS_LONG ? 2 : 10; // seconds

// --- What the attacker says ----------------------------------------------------------------------

const std::string BUS = "org.freedesktop.DBus", POLICY = "com.norvane.qor.Policy1";

std::string Call(const std::string& interface, const char* method, GVariant* pArguments = nullptr,
                 const char* path = SERVICE_PATH, const std::string& destination = SERVICE_NAME)
{
    const ObjectPtr<GDBusMessage> message(
        g_dbus_message_new_method_call(destination.c_str(), path, interface.c_str(), method));
    g_dbus_message_set_serial(message.get(), 1);
    if (pArguments != nullptr)
    {
        g_dbus_message_set_body(message.get(), pArguments);
    }
    gsize size = 0;
    const std::unique_ptr<guchar, void (*)(gpointer)> bytes(
        g_dbus_message_to_blob(message.get(), &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr),
        &g_free);
    return std::string(bytes.get(), bytes.get() + size);
}

std::string CallChannel(const char* method, const Bytes& bytes)
{
    GVariant* const pArray =
        g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
    return Call(INTERFACE_NAME, method, g_variant_new_tuple(&pArray, 1));
}

std::string Hello(std::size_t types)
{
    std::vector<std::int32_t> list(types);
    std::iota(list.begin(), list.end(), 2);
    return CallChannel("Hello", EventList(list));
}

std::string Text(std::size_t size, const std::string& beginning = "")
{
    return "<p>" + beginning + std::string(size, 'x') + "</p>";
}

std::string SetPolicy(std::size_t size, int type = 4)
{
    return CallChannel("Send", Request(type, false, Archive(Text(size))));
}

const std::string GET_POLICY = Call(POLICY, "GetPolicy", g_variant_new("(t)", guint64(0))),
                  GET_ALL = Call(BUS + ".Properties", "GetAll", g_variant_new("(s)", &POLICY[0])),
                  LIST_POLICIES = Call(POLICY, "ListPolicies"),
                  LIST_CLIENTS = Call(POLICY, "ListClients"),
                  INTROSPECT = Call(BUS + ".Introspectable", "Introspect", nullptr, "/"),
                  HELLO_TO_BUS = Call(BUS, "Hello", nullptr, "/org/freedesktop/DBus", BUS),
                  GET_ID = Call(BUS, "GetId", nullptr, "/org/freedesktop/DBus", BUS);

Attack Ask(std::size_t connections, std::size_t open, const std::vector<std::string>& questions,
           std::size_t count = SIZE_MAX)
{
    return {connections, open, questions, count, {HELLO_TO_BUS}};
}

Attack Register(std::size_t clients, std::size_t types, std::size_t askers = 0,
                const std::vector<std::string>& questions = {})
{
    return {clients, 4, questions, SIZE_MAX, {HELLO_TO_BUS, Hello(types)}, askers};
}

struct Row
{
    const char* name;
    Attack attack;
    int seconds; // where it is long
    std::size_t policySize = 4096;
    std::size_t megabytes = 200;
    unsigned int users = 1;
};

const Row ROWS[] = {
    {"ManyWhoAsk", Ask(240, 4, {GET_POLICY, SetPolicy(1), GET_ALL}), 20},
    {"ManyUsersWhoAsk", Ask(60, 4, {GET_POLICY, GET_ALL}), 20, 4096, 200, 4},
    {"ManyClients", Register(240, 1024, 4, {GET_ALL, LIST_CLIENTS}), 20},
    {"LargePolicyAndClients", Register(20, 1, 20, {GET_POLICY}), 20, 1000000},
    {"LargePolicy", Ask(240, 4, {GET_POLICY}), 20, 1000000},
    {"LargeUnread", Ask(1, 0, {GET_POLICY}, 200), 10, 1 << 20, 100},
    {"LargeUnreadByEight", Ask(8, 0, {GET_POLICY}, 200), 10, 1 << 20, 100},
    {"SmallUnread", Ask(8, 0, {GET_ALL, INTROSPECT, SetPolicy(1), Hello(1025)}), 120, 4096, 100},
    {"Refused", Ask(8, 4, {SetPolicy(1), CallChannel("Send", {})}), 20},
    // Most have left when the service hears of them.
    {"HelloAndLeave", {60, 9, {}, 0, {HELLO_TO_BUS, Hello(1024), GET_ID}, 0, 2}, 60},
    {"AskAndLeave", {60, 9, {}, 0, {HELLO_TO_BUS, SetPolicy(1), GET_ID}, 0, 2}, 20},
};

// --- Attacks on qord -----------------------------------------------------------------------------

// The longest time of one of the steps, which are repeated for so long.
double Longest(double seconds, const std::function<void()>& step)
{
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    double longest = 0;
    do
    {
        longest = std::max(longest, Seconds(step));
    } while (Clock::now() < end && !testing::Test::HasFailure());
    return longest;
}

class Attacked : public ToolTest, public testing::WithParamInterface<Row>
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
        {
            GTEST_SKIP() << "only root can act as another user";
        }
        m_pBus = std::make_unique<PrivateBus>();
        m_options.environment = {{"NOTIFY_SOCKET", m_directory.Path("notify")},
                                 {"WATCHDOG_USEC", "1000000"}};
    }
    ~Attacked() override
    {
        close(m_manager);
    }

    void Start(const std::string& words = "qord: ready")
    {
        m_qord = StartTool(QORD, {"--policy", m_policyFile}, m_options);
        ASSERT_TRUE(m_qord->WaitForOut(words)) << m_qord->Err();
    }

    // The service manager, which does not like silence.
    void Listen()
    {
        char message[256] = {};
        pollfd ready{m_manager, POLLIN, 0};
        poll(&ready, 1, 20);
        recv(m_manager, message, sizeof message - 1, MSG_DONTWAIT);
        const std::chrono::duration<double> silence = Clock::now() - m_heard;
        m_silence = std::max<double>(m_silence, silence.count());
        m_heard = std::string(message).find("WATCHDOG=1") == 0 ? Clock::now() : m_heard;
    }

    double SetPolicies(RawPeer& good, std::size_t size, double seconds)
    {
        const auto policy = [&] { return Text(size, "<n" + std::to_string(++m_stored) + "/>"); };
        return Longest(seconds, [&] { EXPECT_EQ(SendPolicy(good, policy()), 0); });
    }

    double ProcessorSeconds() const
    {
        clockid_t clock = 0;
        timespec time{};
        clock_getcpuclockid(m_qord->Pid(), &clock);
        clock_gettime(clock, &time);
        return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
    }

    // Of one round of the questions, each answered before the next one.
    double Cost(unsigned int user, const std::vector<std::string>& questions, std::size_t rounds)
    {
        const double before = ProcessorSeconds();
        const std::size_t count = rounds * questions.size();
        const Attacker attacker(user, Ask(1, 1, questions, count));
        EXPECT_TRUE(WaitUntil([&] { return attacker.Seen().answered == count + 1; }));
        return (ProcessorSeconds() - before) / static_cast<double>(rounds);
    }

    const int m_manager = BoundSocket(SOCK_DGRAM, m_directory.Path("notify"));
    Clock::time_point m_heard = Clock::now();
    std::atomic<double> m_silence{0};
    std::size_t m_stored = 0;
    std::unique_ptr<ChildProcess> m_qord;
};

TEST_P(Attacked, ServiceStoresPoliciesAndIsAliveAndItsMemoryAndItsLogAreBounded)
{
    const Row& row = GetParam();
    m_options.environment["QOR_DLOG"] = "stderr";
    const Repeat listen([&] { Listen(); });
    Start();
    RawPeer good;
    SetPolicies(good, row.policySize, 0);
    std::deque<Attacker> attackers;
    for (unsigned int user = 1; user <= row.users; ++user)
    {
        attackers.emplace_back(user, row.attack);
    }
    const double longest = SetPolicies(good, row.policySize, IS_LONG ? row.seconds : 0.5);
    const std::size_t memory = ResidentKilobytes(m_qord->Pid(), "VmHWM:") >> 10;
    const std::string log = '\n' + m_qord->Out() + m_qord->Err();
    const std::size_t lines = CountOf(log, "\nqord: ") + CountOf(log, "\nE/QOR(");
    const Attacker::TSSeen& seen = attackers.back().Seen();
    std::cout << row.name << ": " << m_stored << " policies, each within " << longest
              << " s; silent for " << m_silence << " s; " << memory << " MiB; " << lines
              << " lines, " << CountOf(log, "\nD/QOR(") << " for debugging; each attacker "
              << seen.asked << " questions, " << seen.answered << " answers\n";
    EXPECT_GE(seen.answered, row.attack.connections);
    EXPECT_LT(longest, LIMIT);
    EXPECT_TRUE(!IS_LONG || m_silence < 1) << m_silence; // a short attack is over before
    EXPECT_TRUE(IS_SANITIZED || memory < row.megabytes) << memory;
    EXPECT_EQ(CountOf(log, " bytes is stored (SHA-256"), m_stored);
    EXPECT_LT(lines, 20 * m_stored + 100); // each is announced, and some have not heard
}

INSTANTIATE_TEST_SUITE_P(By, Attacked, testing::ValuesIn(ROWS),
                         [](const auto& row) { return row.param.name; });

using AttackCost = Attacked;

TEST_F(AttackCost, QuestionsCostTheSameWhoeverIsRegistered)
{
    double status[2] = {};
    for (const std::size_t clients : {10U, 1000U})
    {
        Start("policy-update: 0 delivered");
        RawPeer good;
        SetPolicies(good, 4096, 0);
        std::deque<Attacker> users;
        for (unsigned int user = 2; user < 7; ++user)
        {
            users.emplace_back(user, Register(clients / 5, 3));
            const auto& seen = users.back().Seen();
            EXPECT_TRUE(WaitUntil([&] { return seen.answered == 2 * clients / 5; }));
        }
        const std::vector<std::string> questions = {GET_ALL, LIST_POLICIES, LIST_CLIENTS};
        status[clients == 1000] = Cost(1, questions, 20);
        std::cout << clients << " clients: status in " << status[clients == 1000] << " s\n";
        m_qord.reset();
    }
    EXPECT_LT(status[1], 3 * status[0]);
}

// --- Attacks on another service ------------------------------------------------------------------

using AttackedServer = ServerTest;

TEST_F(AttackedServer, LargeAnswersThatNobodyReadsAreNotKept)
{
    if (geteuid() != 0)
    {
        GTEST_SKIP() << "only root can act as another user";
    }
    Serve([](const auto&, auto& answer) { return answer.resize(1 << 20), true; });
    RawPeer good;
    WriteFile("/proc/self/clear_refs", "5"); // VmHWM begins anew
    for (const std::size_t connections : {1U, 8U})
    {
        const Attacker attacker(1, Ask(connections, 0, {SetPolicy(1)}, 200));
        const double longest = Longest(IS_LONG ? 10 : 0.5, [&] { EXPECT_TRUE(Send(good).ok); });
        const std::size_t memory = ResidentKilobytes(getpid(), "VmHWM:") >> 10;
        std::cout << connections << " read nothing: an answer within " << longest << " s, "
                  << memory << " MiB\n";
        EXPECT_EQ(attacker.Seen().asked, connections * 200);
        EXPECT_LT(longest, LIMIT);
        EXPECT_TRUE(IS_SANITIZED || memory < 120) << memory;
    }
}

// The bus may add a descriptor to each answer, and refuses calls of others while many of those
// wait.
TEST_F(AttackedServer, BusIsAskedAboutAFewOfManyNewSendersAtATime)
{
    if (getenv("QOR_TEST_BUS") != nullptr)
    {
        GTEST_SKIP() << "dbus-broker may still hold calls when it answers what came after them";
    }
    constexpr std::size_t SENDERS = 60, AT_A_TIME = 32;
    static std::atomic<std::size_t> s_calls, s_questions, s_signals;
    static std::atomic<bool> s_isHeld;
    s_calls = s_questions = s_signals = 0;
    s_isHeld = true;
    Serve();
    const ObjectPtr<GDBusConnection> shared(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    const auto count = [](GDBusConnection*, GDBusMessage* pMessage, gboolean, gpointer)
    {
        const auto is = [member = g_dbus_message_get_member(pMessage)](const char* name)
        { return std::size_t(g_strcmp0(member, name) == 0 ? 1 : 0); };
        s_calls += is("Send");
        s_questions += is("GetConnectionCredentials");
        s_signals += is("Sent");
        WaitUntil([&] { return is("Send") == 0 || !s_isHeld; });
        return pMessage;
    };
    const guint filter = g_dbus_connection_add_filter(shared.get(), count, nullptr, nullptr);
    const Attacker senders(geteuid(), {SENDERS, 4, {}, 0, {HELLO_TO_BUS, SetPolicy(1), GET_ID}});
    EXPECT_TRUE(WaitUntil([&] { return senders.Seen().answered == 2 * SENDERS; }));
    m_bus.Freeze(true);
    s_isHeld = false;
    EXPECT_TRUE(WaitUntil([] { return s_calls == SENDERS; }));
    g_dbus_connection_emit_signal(shared.get(), nullptr, "/", BUS.c_str(), "Sent", nullptr,
                                  nullptr);
    EXPECT_TRUE(WaitUntil([] { return s_signals == 1; }));
    EXPECT_EQ(s_questions, AT_A_TIME);
    m_bus.Freeze(false);
    EXPECT_TRUE(WaitUntil([&] { return senders.Seen().answered == 3 * SENDERS; }));
    EXPECT_EQ(s_questions, SENDERS);
    g_dbus_connection_remove_filter(shared.get(), filter);
}

// The bus tells of them as long as the service's connection has match rules left.
TEST_F(AttackedServer, DeparturesThatTheBusDoesNotTellAreSeenWithinAMinute)
{
    if (geteuid() != 0 || !IS_LONG)
    {
        GTEST_SKIP() << "takes a minute, and root";
    }
    Serve();
    std::deque<Attacker> users;
    for (const unsigned int user : {1U, 2U, 3U, 4U})
    {
        users.emplace_back(user, Register(user < 4 ? 180 : 60, 1));
    }
    ASSERT_TRUE(HasClients(3 * 180 + 60));
    users.pop_back();
    EXPECT_TRUE(WaitUntil([&] { return m_server->NumberOfClients() == 3 * 180; }, 62000));
}

} // namespace
