// The parts of the page, each a piece of HTML. What comes from a repository is escaped in them.
#pragma once

#include "report/model.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace vtbackup {

// Where a chain, counted from 0, and its backups can be linked to.
std::string ChainAnchor(std::size_t chain);
std::string BackupAnchor(std::size_t chain, const ReportBackup& backup);

// "full" and so on: the class and the symbol that stand for a mark.
const char* NameOf(ReportColumn::Mark mark) noexcept;
// A backup in one line, for whoever points at it. Escaped.
std::string SummaryOf(const ReportBackup& backup);
// "backup 5", "backups 5 to 9"
std::string LabelOf(const ReportChain& chain, const ReportColumn& column);
// "128.0 MiB to 192.0 MiB"
std::string RangeText(const PlaceScale& places, std::size_t range);

// The symbols that the pictures use, once a page.
std::string Symbols();
// Every backup with a time, one line a chain, over one axis.
std::string Timeline(const Report& report);
// What each backup stored, and what changed where: the columns are the backups.
std::string ChainPictures(const ReportChain& chain, std::size_t number);
// The same figures as tables.
std::string ChainTables(const ReportChain& chain, std::size_t number);

} // namespace vtbackup
