// The jobs that the utilities and their peers are timed at.
#ifndef QORBENCH_UTILITYJOBS_H
#define QORBENCH_UTILITYJOBS_H

#include <cstddef>
#include <functional>
#include <string>

namespace qorbench
{

struct UtilityJobs
{
    std::function<void()> m_lookUp;                                 // one cached value
    std::function<std::size_t(const std::string&)> m_countXmlFiles; // names of .xml files in a tree
    std::function<std::size_t(const std::string&)> m_treeSize;      // bytes in a tree
};

/// Obeys the commands: lookup THREADS BATCHES PER-BATCH | files TREE COUNT EXPECTED |
/// size TREE COUNT EXPECTED
int RunUtilityJobs(const UtilityJobs& jobs);

} // namespace qorbench

#endif
