// A policy store whose calls are watched, and what may be left of it.
#include "PolicyStoreCrash.h"

#include <fcntl.h>
#include <sys/syscall.h>

namespace qortest
{

int PolicyStoreCrash::Store(const std::string& text, Watch* pWatch)
{
    qord::TCPolicyStore store(m_pDirectory->Path(POLICY), {Copies(), 1});
    const std::string known = Known(ReadFile(m_pDirectory->Path(POLICY)), text);
    Watch usual;
    pWatch = pWatch == nullptr ? &usual : pWatch;
    pWatch->refused[SYS_renameat2] = GetParam().exchangeError;
    SetWatch(pWatch);
    m_outcome = store.Store(text, [&](const struct stat&) { return known; });
    SetWatch(nullptr);
    return m_outcome.m_result;
}

Disk PolicyStoreCrash::Read() const
{
    Disk disk;
    for (const auto& entry : boost::filesystem::directory_iterator(m_pDirectory->Path()))
    {
        const std::string path = entry.path().string();
        disk[entry.path().filename().string()] = {FileOf(AT_FDCWD, path.c_str()), ReadFile(path)};
    }
    return disk;
}

void PolicyStoreCrash::Write(const Disk& disk)
{
    m_pDirectory = std::make_unique<TemporaryDirectory>();
    ForgetFiles(); // the system gives their numbers to those that are written here
    std::map<ino_t, std::string> written;
    for (const auto& [name, file] : disk)
    {
        const std::string path = m_pDirectory->Path(name);
        if (written.emplace(file.first, path).second)
        {
            WriteFile(path, file.second);
        }
        else
        {
            boost::filesystem::create_hard_link(written[file.first], path);
        }
    }
    // The files have other numbers here, and one has such a number in its name.
    for (const auto& [number, path] : written)
    {
        const std::string unfinished = UNFINISHED + std::to_string(number);
        if (disk.count(unfinished) != 0)
        {
            const ino_t here = FileOf(AT_FDCWD, path.c_str());
            boost::filesystem::rename(m_pDirectory->Path(unfinished),
                                      m_pDirectory->Path(UNFINISHED + std::to_string(here)));
        }
    }
}

std::string PolicyStoreCrash::Fault(const Disk& disk, int result, bool isRecorded)
{
    const auto textOf = [&](const std::string& name)
    { return disk.count(name) == 0 ? "none" : disk.at(name).second; };
    const std::string policy = textOf(POLICY), record = textOf(RECORD);
    const bool isNew = policy == NEW, isOld = policy == OLD;
    const bool hasOld = std::any_of(disk.begin(), disk.end(),
                                    [](const auto& file) { return file.second.second == OLD; });
    return !isNew && !isOld                             ? "no whole policy"
           : result == qor::POLICY_STORED && !isNew     ? "what was acknowledged is lost"
           : result == qor::POLICY_NOT_STORED && !isOld ? "what was refused is in force"
           : Copies() > 0 && !hasOld                    ? "the old one is not kept"
           : record != Known("two", OLD) && record != Known(OLD, NEW) ? "no whole record"
           : isRecorded && record.find(policy) == std::string::npos ? "nobody knows who has set it"
                                                                    : "";
}

void PolicyStoreCrash::ExpectThatTheNextIsStored(const std::string& what)
{
    const std::string last = Read()[POLICY].second;
    EXPECT_EQ(Store("five"), qor::POLICY_STORED) << what << m_outcome.m_words;
    EXPECT_EQ(m_outcome.m_words, "") << what;
    Disk disk = Read();
    EXPECT_EQ(disk[RECORD].second, Known(last, "five")) << what;
    disk.erase(RECORD);
    disk.erase(LOCK);
    EXPECT_EQ(disk.size(), 1 + Kept(disk)) << what << ": something is left";
    EXPECT_LE(Kept(disk), Copies()) << what;
    EXPECT_EQ(disk[POLICY].second, "five") << what;
    std::set<std::string> texts;
    std::for_each(disk.begin(), disk.end(),
                  [&](const auto& file) { texts.insert(file.second.second); });
    EXPECT_EQ(texts.size(), disk.size()) << what << ": something is kept twice";
    EXPECT_TRUE(Copies() == 0 || disk.rbegin()->second.second == last) << what << " " << last;
    EXPECT_TRUE(Copies() == 0 || texts.count(OLD) == 1) << what << ": a way back is lost";
}

std::set<Disk> PolicyStoreCrash::DisksAfterPowerLoss(const std::vector<Change>& changes,
                                                     std::size_t end, bool isOrdered) const
{
    std::vector<bool> isOpen(end);
    std::size_t count = 0;
    for (std::size_t i = 0; i < end; ++i)
    {
        isOpen[i] =
            changes[i].kind != Change::SYNC &&
            std::none_of(&changes[i], &changes[0] + end,
                         [&](const Change& later)
                         { return later.kind == Change::SYNC && later.file == changes[i].file; });
        count += isOpen[i] ? 1U : 0U;
    }
    std::set<Disk> disks;
    for (std::size_t chosen = 0; chosen < std::size_t(1) << count; ++chosen)
    {
        Disk disk = m_before;
        std::map<ino_t, std::string> written;
        bool isPossible = true, isNameMissing = false;
        for (std::size_t i = 0, bit = 0; i < end; ++i)
        {
            const bool isName = changes[i].kind == Change::NAMES;
            if (isOpen[i] && (chosen >> bit++ & 1) == 0)
            {
                isNameMissing = isNameMissing || isName;
                continue;
            }
            isPossible = isPossible && !(isOrdered && isName && isNameMissing);
            if (changes[i].kind == Change::DATA)
            {
                written[changes[i].file] += changes[i].data;
            }
            for (const auto& [name, file] : changes[i].names)
            {
                disk[name] = {file, ""};
                if (file == 0)
                {
                    disk.erase(name);
                }
            }
        }
        for (auto& [name, file] : disk)
        {
            const auto isSame = [number = file.first](const auto& before)
            { return before.second.first == number; };
            const auto before = std::find_if(m_before.begin(), m_before.end(), isSame);
            file.second = before == m_before.end() ? written[file.first] : before->second.second;
        }
        if (isPossible)
        {
            disks.insert(disk);
        }
    }
    return disks;
}

std::string PolicyStoreCrash::FaultAfterPowerLoss(const std::vector<Change>& changes, int result,
                                                  bool isRecorded) const
{
    for (std::size_t end = 0; end <= changes.size(); ++end)
    {
        for (const bool isOrdered : {false, true})
        {
            for (const Disk& disk : DisksAfterPowerLoss(changes, end, isOrdered))
            {
                const int told = end == changes.size() ? result : -1;
                const bool isKnown = isRecorded && (isOrdered || told == qor::POLICY_STORED);
                const std::string fault = Fault(disk, told, isKnown);
                if (!fault.empty())
                {
                    return fault + " after change " + std::to_string(end);
                }
            }
        }
    }
    return "";
}

std::size_t Syncs(const std::vector<Change>& changes)
{
    return static_cast<std::size_t>(std::count_if(changes.begin(), changes.end(),
                                                  [](const Change& change)
                                                  { return change.kind == Change::SYNC; }));
}

} // namespace qortest
