#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

namespace tessaron {

/// A table in box-drawing characters, whose long cells are wrapped at spaces.
///
///     TableFormatter table({{"NAME", 0}, {"DESCRIPTION", 60}});
///     table.add_row({{"web_port", "\033[1;36m"}, {"Port of the dashboard", ""}});
///     table.print(std::cout, detail::stdout_supports_color());
///
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: none; what the stream does is the caller's to look at.
class TableFormatter {
public:
    struct Column {
        std::string header;
        unsigned long max_width = 0; ///< Of the cells, in code points; 0 means no limit.
    };

    struct Cell {
        std::string text;
        std::string color; ///< An escape sequence, empty for none.
    };

    explicit TableFormatter(std::vector<Column> columns);

    /// A row with fewer cells than columns is filled up with empty ones; further cells are dropped.
    void add_row(std::vector<Cell> row);

    /// Without colour no escape sequence appears at all.
    void print(std::ostream& out, bool use_color) const;

private:
    std::vector<Column> columns_;
    std::vector<std::vector<Cell>> rows_;
};

} // namespace tessaron
