// What the service is made of: its questions to the user database, its lines about refusals, the
// check of XML.
#include <dlfcn.h>
#include <grp.h>

#include <chrono>

#include <expat.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "common/PolicyXml.h"
#include "qord/PolicyHandler.h"
#include <qor/PolicyMessage.h>

using namespace std::string_literals;

// The checks of a text so far: each makes a parser.
static int g_checks = 0;

extern "C" XML_Parser XML_ParserCreate_MM(const XML_Char* encoding,
                                          const XML_Memory_Handling_Suite* pMemory,
                                          const XML_Char* separator)
{
    ++g_checks;
    const auto pReal =
        reinterpret_cast<decltype(&XML_ParserCreate_MM)>(dlsym(RTLD_NEXT, "XML_ParserCreate_MM"));
    return pReal(encoding, pMemory, separator);
}

static int Check(const std::string& text, std::string& error, std::size_t memory = 4 << 20)
{
    error.clear();
    return tools::CheckPolicyXml(text, error, memory);
}

class PolicyHandler : public testing::Test
{
protected:
    PolicyHandler()
    {
        m_asker.m_peer.m_isKnown = true;
        m_asker.m_permission = qord::EPermission::GRANTED;
        Open();
    }

    void Open()
    {
        m_handler.reset(); // which keeps the file for itself
        m_handler =
            std::make_unique<qord::TCPolicyHandler>(qord::TCPolicyStore(m_file), 100, m_users);
        m_handler->Open();
    }

    int Set(const std::string& policy, const std::optional<std::string>& ifMatch = {})
    {
        m_verdict = m_handler->Set(policy, m_asker, ifMatch);
        return m_verdict.m_result;
    }

    qortest::TemporaryDirectory m_directory;
    const std::string m_file = m_directory.Path("policy.xml");
    qord::TCUserDatabase m_users;
    std::unique_ptr<qord::TCPolicyHandler> m_handler;
    qord::TSAsker m_asker;
    qord::TSVerdict m_verdict;
};

TEST(UserDatabase, NobodyWaitsForOneThatHangs)
{
    const qortest::TemporaryDirectory directory;
    setenv("QOR_TEST_USERS", directory.Path().c_str(), 1);
    const std::string hang = directory.Path("hang");
    qor::TSPeer peer;
    peer.m_isKnown = peer.m_hasGroups = true;
    peer.m_userId = geteuid() + 12345;
    peer.m_groupIds = {getgrnam("daemon")->gr_gid};
    qord::TSPermissionRules rules;
    rules.m_groups = {"made-later", "late"};
    const auto start = std::chrono::steady_clock::now();
    {
        qord::TCUserDatabase users;
        const qord::TCPermission permission(rules, users);
        const auto isSoon = [&](qord::EPermission wanted, int limitMs = 2000) {
            return qortest::WaitUntil([&] { return permission.MayChange(peer) == wanted; },
                                      limitMs);
        };
        EXPECT_TRUE(isSoon(qord::EPermission::REFUSED));
        EXPECT_EQ(permission.MissingGroups(), rules.m_groups);
        qortest::WriteFile(directory.Path("made-later"), ""); // an answer is not kept for long
        EXPECT_TRUE(isSoon(qord::EPermission::GRANTED));
        qortest::WriteFile(hang, "");
        for (uid_t id = 1000; id < 3000; ++id)
        {
            EXPECT_EQ(users.UserName(id), std::nullopt);
        }
        EXPECT_EQ(permission.MayChange(peer), qord::EPermission::GRANTED); // as was known last
        peer.m_hasGroups = false;
        EXPECT_EQ(permission.MayChange(peer), qord::EPermission::UNKNOWN);
        boost::filesystem::remove(hang);
        EXPECT_TRUE(isSoon(qord::EPermission::REFUSED, qortest::WATCHDOG_MS));
        qortest::WriteFile(hang, "");
        EXPECT_EQ(users.UserName(2999), std::nullopt); // too many questions were before it
        boost::filesystem::remove(hang);
        qortest::WaitUntil([&] { return users.UserName(2999).has_value(); });
        for (uid_t id = 1001; id < 1300; ++id) // more answers than are kept
        {
            EXPECT_TRUE(qortest::WaitUntil([&] { return users.UserName(id).has_value(); }));
        }
        qortest::WriteFile(hang, "");
        EXPECT_EQ(users.UserName(1001), std::nullopt);
        EXPECT_EQ(users.UserName(1299), "1299");
    } // and the question is left behind
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    boost::filesystem::remove(hang);
}

// A slow bus is no reason to tell root that it may not; and nobody's text is worth hashing who may
// not set it.
TEST_F(PolicyHandler, AsksWhoSendsBeforeItLooksAtTheText)
{
    testing::internal::CaptureStderr();
    m_asker.m_peer.m_isKnown = false;
    EXPECT_EQ(Set("<a>"), qor::POLICY_NOT_STORED);
    EXPECT_NE(m_verdict.m_words.find("try again"), std::string::npos);
    m_asker.m_peer.m_isKnown = true;
    m_asker.m_permission = qord::EPermission::UNKNOWN; // nor is a slow user database
    EXPECT_EQ(Set("<a>"), qor::POLICY_NOT_STORED);
    EXPECT_NE(m_verdict.m_words.find("database has not told"), std::string::npos);
    m_asker.m_permission = qord::EPermission::REFUSED;
    for (int i = 0; i < 9; ++i) // of which four have lines of their own, as the one before has
    {
        EXPECT_EQ(Set("<a>"), qor::POLICY_NOT_PERMITTED);
        EXPECT_EQ(m_verdict.m_sha256, "");
    }
    const std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_EQ(qortest::CountOf(errors, "may not change the policy (user 0"), 4U) << errors;
    m_asker.m_permission = qord::EPermission::GRANTED;
    EXPECT_EQ(Set("<a/>", ""), qor::POLICY_STORED);
    EXPECT_EQ(m_handler->HashInForce(), m_verdict.m_sha256);
}

TEST(RefusalLog, CountsUsersApartTellsWhenTheTimeIsOverAndIsQuietThen)
{
    qord::TCUserDatabase users;
    qord::TCRefusalLog log(users, 1);
    const auto isIdle = [&]
    { return g_main_context_find_source_by_user_data(nullptr, &log) == nullptr; };
    for (int round = 0; round < 2; ++round)
    {
        testing::internal::CaptureStderr();
        for (int i = 0; i < 8; ++i)
        {
            EXPECT_EQ(isIdle(), i <= 5) << i;
            log.Write(500000, {}, "the user's");
            log.Write({}, {}, "unknown");
        }
        for (uid_t user = 0; user < 300; ++user) // more than have accounts
        {
            log.Write(user, {}, "another's");
        }
        if (round == 1)
        {
            log.End(); // which does not wait
        }
        EXPECT_TRUE(qortest::PumpUntil(isIdle, round == 0 ? qortest::WATCHDOG_MS : 0));
        const std::string errors = testing::internal::GetCapturedStderr();
        for (const auto& [words, lines] :
             {std::pair("the user's\n", 5U), std::pair("3 more of user 500000 (500000) were", 1U),
              std::pair("unknown\n", 5U), std::pair("3 more of senders that the bus", 1U),
              std::pair("another's\n", 254U + 5U), std::pair("41 more of other users were", 1U)})
        {
            EXPECT_EQ(qortest::CountOf(errors, words), lines) << words << '\n' << errors;
        }
    }
    qord::TCRefusalLog brief(users, 0); // each of its times is over at once
    testing::internal::CaptureStderr();
    for (int i = 0; i < 9; ++i)
    {
        brief.Write(500000, {}, "of a time of its own");
    }
    EXPECT_EQ(qortest::CountOf(testing::internal::GetCapturedStderr(), "of a time of its own\n"),
              9U);
}

// Also at a start: a policy that takes long to check must not make each start long.
TEST_F(PolicyHandler, ChecksNoTextTwice)
{
    qortest::WriteFile(m_file, "<a/>");
    g_checks = 0;
    const auto open = [&](int checks)
    {
        Open();
        EXPECT_EQ(m_handler->IsGood(m_handler->HashInForce()), qortest::ReadFile(m_file) != "<c>");
        EXPECT_EQ(g_checks, checks);
    };
    open(1);
    for (const auto& [policy, checks] : {std::pair("<a/>", 1), std::pair("<b/>", 2)})
    {
        EXPECT_EQ(Set(policy), qor::POLICY_STORED);
        EXPECT_EQ(g_checks, checks);
    }
    open(2);
    qortest::WriteFile(m_file, "<c>"); // by somebody else, whose texts have not been checked
    m_handler->LookAtForeignPolicy();
    EXPECT_EQ(g_checks, 3);
    open(5);
}

// With a number between both halves, where there is a second one.
static std::string Times(std::size_t count, const std::string& text, const std::string& rest = "")
{
    std::string all;
    for (std::size_t i = 0; i < count; ++i)
    {
        all += text + (rest.empty() ? "" : std::to_string(i) + rest);
    }
    return all;
}

TEST(PolicyXml, RefusalsSayWhereAndWhat)
{
    std::string error, bomb = "<!DOCTYPE a [<!ENTITY e0 'xx'>";
    for (int i = 0; i < 40; ++i)
    {
        const std::string inner = "&e" + std::to_string(i) + ";";
        bomb += "<!ENTITY e" + std::to_string(i + 1) + " '" + inner + inner + "'>";
    }
    EXPECT_EQ(Check(bomb + "]><a>&e40;</a>", error), qor::POLICY_TOO_LARGE);
    EXPECT_NE(error.find("amplification"), std::string::npos) << error;
    EXPECT_EQ(Check("<a>\n <b></a>", error), qor::POLICY_NOT_WELL_FORMED);
    EXPECT_EQ(error.find("line 2, column 7: mismatched tag"), 0U) << error;
    for (const char* text : {"<!DOCTYPE a [<!ENTITY e SYSTEM 'file:///dev/zero'>]><a>&e;</a>",
                             "<!DOCTYPE a SYSTEM 'http://127.0.0.1/'><a>&e;</a>",
                             "\xEF\xBB\xBF<?xml version='1.0' encoding='utf-8'?><a/>",
                             "<!-- c --><x:a y:b='&lt;&#65;'>\xC3\xA9<?p?><![CDATA[<b>&]]></x:a>"})
    {
        EXPECT_EQ(Check(text, error), qor::POLICY_STORED) << text << error;
    }
    for (const char* start : {"<?xml version='1.0' encoding='UTF-16'?>", "<!DOCTYPE>", "<?xml?>",
                              "<?xml version='1.0' encoding='ISO-8859-1'?>", "<!-- a -- b -->",
                              "<?xml version='2.0'?>", " <?xml version='1.0'?>", "<a/>", "]]>"})
    {
        EXPECT_EQ(Check(std::string(start) + "<a/>", error), qor::POLICY_NOT_WELL_FORMED) << start;
    }
    EXPECT_EQ(Check("", error), qor::POLICY_NOT_WELL_FORMED);
    for (const std::string& text :
         {"<a/>\0<b"s, "<\0a\0/\0>\0"s, "\0<\0a\0/\0>"s, "\xFF\xFE<\0a\0/\0>\0"s, "<a>&nope;</a>"s,
          "<a>&#31;</a>"s, "<a>\xED\xA0\x80</a>"s, "<a>]]></a>"s})
    {
        EXPECT_EQ(Check(text, error), qor::POLICY_NOT_WELL_FORMED) << error;
    }
    const std::string deep = Times(100000, "<a>"), wide = Times(100000, " a", "=''");
    EXPECT_EQ(Check(deep, error), qor::POLICY_TOO_LARGE) << error;
    EXPECT_EQ(Check("<a" + wide + "/>", error), qor::POLICY_TOO_LARGE) << error;
    EXPECT_EQ(Check(deep, error, 100 << 20), qor::POLICY_NOT_WELL_FORMED) << error; // not closed
}

// Each of them would take the parser seconds or minutes, or would were it a little longer.
TEST(PolicyXml, WhatTakesTooLongToCheckIsRefused)
{
    const auto document = [](const std::string& declarations, const std::string& content)
    { return "<!DOCTYPE a [" + declarations + "]><a>" + content + "</a>"; };
    const auto attributes = [](const std::string& list) { return "<!ATTLIST b" + list + ">"; };
    const std::string many = Times(2000, " a", " CDATA ''");
    const std::string bees = "<!ENTITY e '" + Times(1000, "<b/>") + "'>";
    std::string error;
    for (const std::string& hostile :
         {document(attributes(many), Times(40000, "<b/>")),
          document(attributes(many) + bees, Times(40, "&e;")),
          document(attributes(Times(2000, " a CDATA #IMPLIED")), Times(40000, "<b/>")),
          document(attributes(many + Times(40000, " a1999 CDATA ''")), ""),
          document(Times(8000, "<!ATTLIST b", " a CDATA ''>"), Times(40000, "<b7999/>")),
          document("<!ENTITY e '" + Times(10000, "x") + "'>", Times(250, "&e;"))})
    {
        EXPECT_EQ(Check(hostile, error), qor::POLICY_TOO_LARGE) << hostile.substr(0, 60) << error;
        // Newer releases of the parser take more memory for some of them than they may have.
        EXPECT_TRUE(error.find("too long to check") != std::string::npos ||
                    error.find("too many different names") != std::string::npos)
            << error;
    }
    // A usual one of the largest size is no such text.
    const std::string rules =
        Times(470000, "<rule id='", "' action='allow'><app>com.example.app</app>&e;</rule>\n");
    EXPECT_GT(rules.size(), 31U << 20);
    EXPECT_EQ(
        Check(document("<!ATTLIST rule" + Times(12, " a", " CDATA ''") + "><!ENTITY e 'x'>", rules),
              error),
        qor::POLICY_STORED)
        << error;
}
