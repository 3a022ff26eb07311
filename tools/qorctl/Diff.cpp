// qorctl diff: the differences between two policies, as the system's diff shows them.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <optional>

#include <glib.h>

#include "common/ExitStatus.h"
#include "common/Output.h"
#include "qorctl/Commands.h"
#include "qorctl/Message.h"
#include "qorctl/ServiceCall.h"
#include "qorctl/ServiceFacts.h"

namespace qorctl
{
namespace
{

constexpr int SAME = 0;
constexpr int DIFFERENT = 1; // also the status of the process, as that of diff

// A policy as a file without a name, so that none is left behind however the process ends.
class TCPassingFile
{
public:
    explicit TCPassingFile(const std::string& text)
        : m_pFile(fdopen(memfd_create("policy", 0), "w")) // open in diff too
    {
        m_isWritten = m_pFile != nullptr &&
                      std::fwrite(text.data(), 1, text.size(), m_pFile) == text.size() &&
                      std::fflush(m_pFile) == 0;
    }
    ~TCPassingFile()
    {
        if (m_pFile != nullptr)
        {
            std::fclose(m_pFile);
        }
    }
    TCPassingFile(const TCPassingFile&) = delete;
    TCPassingFile& operator=(const TCPassingFile&) = delete;

    bool IsWritten() const
    {
        return m_isWritten;
    }
    std::string Name() const
    {
        return "/proc/self/fd/" + std::to_string(fileno(m_pFile));
    }

private:
    FILE* m_pFile;
    bool m_isWritten = false;
};

// The numbers of both; says why they are not known.
int FindNumbers(const TSOptions& options, std::uint64_t& from, std::uint64_t& to)
{
    from = options.m_numbers.empty() ? 0 : options.m_numbers.front();
    to = options.m_numbers.size() > 1 ? options.m_numbers.back() : 0;
    if (!options.m_numbers.empty())
    {
        return tools::EXIT_OK;
    }
    const auto answer = CallService(options, "ListPolicies", nullptr);
    if (!IsGood(answer.m_send) ||
        !g_variant_is_of_type(answer.m_pBody.get(), G_VARIANT_TYPE("(aa{sv})")))
    {
        return SayNotRead(answer.m_send, answer.m_errorName, 0);
    }
    const TJson policies = ToJson(answer.m_pBody.get()).at(0);
    for (const TJson& policy : policies)
    {
        const TJson number = Part(policy, "number");
        from = std::max(from, number.is_number_unsigned() ? number.get<std::uint64_t>() : 0);
    }
    if (from == 0)
    {
        SayError("the service keeps no policy beside the one in force");
        return tools::EXIT_NOT_DELIVERED;
    }
    return tools::EXIT_OK;
}

// Runs diff on the two files, and returns its status; empty if it cannot be run.
std::optional<int> RunDiff(const TCPassingFile& from, const TCPassingFile& to,
                           const std::string& fromName, const std::string& toName, bool isColoured,
                           std::string& difference)
{
    std::string names[] = {fromName, toName, from.Name(), to.Name()};
    char diff[] = "diff", unified[] = "-u", label[] = "--label", colour[] = "--color=always";
    char* command[] = {diff,
                       unified,
                       label,
                       names[0].data(),
                       label,
                       names[1].data(),
                       names[2].data(),
                       names[3].data(),
                       isColoured ? colour : nullptr,
                       nullptr};
    constexpr int flags = G_SPAWN_SEARCH_PATH | G_SPAWN_LEAVE_DESCRIPTORS_OPEN;
    char* pOutput = nullptr;
    int status = 0;
    GError* pError = nullptr;
    if (g_spawn_sync(nullptr, command, nullptr, static_cast<GSpawnFlags>(flags), nullptr, nullptr,
                     &pOutput, nullptr, &status, &pError) == FALSE)
    {
        SayError(std::string("diff cannot be run: ") + pError->message);
        g_error_free(pError);
        return std::nullopt;
    }
    difference = pOutput;
    g_free(pOutput);
    return WIFEXITED(status) && WEXITSTATUS(status) <= DIFFERENT
               ? std::optional<int>(WEXITSTATUS(status))
               : std::nullopt; // diff has said why
}

// Empty if no pager is wanted.
std::string Pager()
{
    const char* pWanted = g_getenv("PAGER");
    const std::string pager = pWanted == nullptr ? "less" : pWanted;
    return isatty(STDOUT_FILENO) != 1 || pager == "cat" ? "" : pager;
}

// On a terminal, page by page.
void Show(const std::string& difference)
{
    constexpr int notFound = 127;
    const std::string pager = difference.empty() ? "" : Pager();
    if (pager.empty())
    {
        tools::Print(difference);
        return;
    }
    alarm(0); // the wait is over
    // Ignored in this process, but not in the pager. It is no error to leave the pager early.
    std::signal(SIGINT, [](int) {});
    std::signal(SIGPIPE, [](int) {});
    // NOLINTNEXTLINE(cert-env33-c): a pager may be any command of the shell
    FILE* pPager = popen(("export LESS=\"${LESS-FRX}\"; " + pager).c_str(), "we");
    if (pPager != nullptr)
    {
        std::fwrite(difference.data(), 1, difference.size(), pPager);
    }
    const int status = pPager == nullptr ? -1 : pclose(pPager);
    if (status == -1 || (WIFEXITED(status) && WEXITSTATUS(status) == notFound))
    {
        tools::Print(difference);
    }
}

} // namespace

int Diff(const TSOptions& options)
{
    std::uint64_t from = 0, to = 0;
    std::string texts[2];
    int exitStatus = FindNumbers(options, from, to);
    exitStatus = exitStatus == tools::EXIT_OK ? FetchPolicy(options, from, texts[0]) : exitStatus;
    exitStatus = exitStatus == tools::EXIT_OK ? FetchPolicy(options, to, texts[1]) : exitStatus;
    if (exitStatus != tools::EXIT_OK)
    {
        return exitStatus == tools::EXIT_REFUSED ? tools::EXIT_NOT_DELIVERED : exitStatus;
    }
    const TCPassingFile older(texts[0]), newer(texts[1]);
    if (!older.IsWritten() || !newer.IsWritten())
    {
        SayError("there is no memory for files to compare");
        return tools::EXIT_NO_OUTPUT;
    }
    std::string difference;
    const auto result = RunDiff(older, newer, PolicyName(from), PolicyName(to),
                                !options.m_json && tools::HasColours(), difference);
    if (!result)
    {
        return tools::EXIT_NO_OUTPUT;
    }
    if (options.m_json)
    {
        PrintJson({{"from", from}, {"to", to}, {"same", *result == SAME}, {"diff", difference}});
    }
    else
    {
        Show(difference);
    }
    return *result;
}

} // namespace qorctl
