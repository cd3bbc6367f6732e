// How cmctl shows text meant for a person: control characters escaped so that one entry stays on
// one line, times in local ISO-8601, and tables with aligned columns.
#ifndef CMCTL_TEXT_FORMAT_H
#define CMCTL_TEXT_FORMAT_H

#include <cstdint>
#include <string>
#include <vector>

namespace Quorel {
namespace Iot {
namespace Cmctl {

// Backslash, newline, carriage return and tab as \\, \n, \r, \t; other control bytes (below 0x20,
// and 0x7f) as \xNN. Everything else, UTF-8 included, is kept.
std::string escape_control(const std::string& text);
// Milliseconds since the Unix epoch as local time, e.g. 2023-11-14T23:13:20.000+01:00.
std::string iso_time(uint64_t ms);
// The current time in milliseconds since the Unix epoch.
uint64_t now_ms();
// Columns a terminal gives the UTF-8 text: one per character.
size_t display_width(const std::string& text);
// Rows of cells, the first row the heading, separated by two spaces and padded to the widest cell
// of each column (the last column is not padded). Cells must be escaped already.
std::string format_table(const std::vector<std::vector<std::string>>& rows);

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel

#endif
