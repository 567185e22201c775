#include "app/utilities/TableFormatter.hpp"

#include "app/utilities/utf8_text.hpp"

#include <algorithm>
#include <string_view>
#include <utility>

namespace tessaron {
namespace {

using Widths = std::vector<std::size_t>;

constexpr char const* K_ANSI_BOLD = "\033[1m";

/// The three characters of a horizontal line that depend on where it runs.
struct Rule {
    std::string_view left;
    std::string_view crossing;
    std::string_view right;
};

constexpr Rule K_TOP{"┌", "┬", "┐"};
constexpr Rule K_BETWEEN{"├", "┼", "┤"};
constexpr Rule K_BOTTOM{"└", "┴", "┘"};

/// Adds one line after the other to the text of a table.
class TableText {
public:
    TableText(Widths const& widths, bool use_color) : widths_(widths), use_color_(use_color) {}

    void add_rule(Rule const& rule) {
        text_ += rule.left;
        for (std::size_t column = 0; column < widths_.size(); ++column) {
            for (std::size_t drawn = 0; drawn < widths_[column] + 2; ++drawn) {
                text_ += "─";
            }
            text_ += column + 1 < widths_.size() ? rule.crossing : rule.right;
        }
        text_ += '\n';
    }

    /// `cells` has one entry per column.
    void add_row(std::vector<TableFormatter::Cell> const& cells) {
        text_ += "│ ";
        for (std::size_t column = 0; column < widths_.size(); ++column) {
            TableFormatter::Cell const& cell = cells[column];
            text_ += detail::ansi_colorize(cell.text, cell.color.c_str(), use_color_);
            std::size_t const length = detail::utf8_length(cell.text);
            // Invalid UTF-8 can be longer than the column it was wrapped to.
            text_.append(widths_[column] - std::min(length, widths_[column]), ' ');
            text_ += column + 1 < widths_.size() ? " │ " : " │";
        }
        text_ += '\n';
    }

    std::string const& text() const { return text_; }

private:
    Widths const& widths_;
    bool const use_color_;
    std::string text_;
};

Widths measure(std::vector<TableFormatter::Column> const& columns,
               std::vector<std::vector<TableFormatter::Cell>> const& rows) {
    Widths widths;
    for (std::size_t column = 0; column < columns.size(); ++column) {
        std::size_t width = detail::utf8_length(columns[column].header);
        for (auto const& row : rows) {
            std::size_t length = detail::utf8_length(row[column].text);
            if (columns[column].max_width != 0) {
                length = std::min<std::size_t>(length, columns[column].max_width);
            }
            width = std::max(width, length);
        }
        widths.push_back(width);
    }
    return widths;
}

std::vector<TableFormatter::Cell> header_cells(std::vector<TableFormatter::Column> const& columns) {
    std::vector<TableFormatter::Cell> cells;
    for (auto const& column : columns) {
        cells.push_back({column.header, K_ANSI_BOLD});
    }
    return cells;
}

/// The lines that the row takes once its cells are wrapped, each with one cell per column. The
/// first line of a cell alone has its colour.
std::vector<std::vector<TableFormatter::Cell>>
wrap_row(std::vector<TableFormatter::Cell> const& row, Widths const& widths) {
    std::vector<std::vector<TableFormatter::Cell>> lines;
    for (std::size_t column = 0; column < widths.size(); ++column) {
        std::vector<std::string> texts = detail::wrap_text(row[column].text, widths[column]);
        while (lines.size() < texts.size()) {
            lines.emplace_back(widths.size());
        }
        for (std::size_t line = 0; line < texts.size(); ++line) {
            lines[line][column].text = std::move(texts[line]);
        }
        lines[0][column].color = row[column].color;
    }
    return lines;
}

} // namespace

TableFormatter::TableFormatter(std::vector<Column> columns) : columns_(std::move(columns)) {
}

void TableFormatter::add_row(std::vector<Cell> row) {
    row.resize(columns_.size());
    rows_.push_back(std::move(row));
}

void TableFormatter::print(std::ostream& out, bool use_color) const {
    Widths const widths = measure(columns_, rows_);
    TableText table(widths, use_color);
    table.add_rule(K_TOP);
    table.add_row(header_cells(columns_));
    table.add_rule(K_BETWEEN);
    for (std::size_t row = 0; row < rows_.size(); ++row) {
        for (auto const& line : wrap_row(rows_[row], widths)) {
            table.add_row(line);
        }
        table.add_rule(row + 1 < rows_.size() ? K_BETWEEN : K_BOTTOM);
    }
    out << table.text();
}

} // namespace tessaron
