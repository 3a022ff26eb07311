// Tables for people.
#ifndef QORCTL_TABLE_H
#define QORCTL_TABLE_H

#include <string>
#include <vector>

namespace qorctl
{

using TRow = std::vector<std::string>;

/// Columns are as wide as their widest cell.
class TCTable
{
public:
    /// @param header  the first line, bold if the output supports it; no such line if it is empty
    explicit TCTable(TRow header = {});

    void Add(TRow row);
    void Print() const;

private:
    bool m_hasHeader;
    std::vector<TRow> m_rows;
};

} // namespace qorctl

#endif
