/*
 * A table of text with aligned columns, for people. Pure: it makes a string.
 */
#ifndef KR_CTL_TEXT_TABLE_H
#define KR_CTL_TEXT_TABLE_H

#include <algorithm>
#include <string>
#include <vector>

namespace ctl {

class text_table {
  public:
    /* A title that begins with '>' stands over a column of numbers, which is aligned to the right. */
    explicit text_table(std::vector<std::string> titles) {
        for (std::string &title : titles) {
            const bool is_right = title.starts_with('>');
            is_right_.push_back(is_right);
            title.erase(0, is_right ? 1 : 0);
        }
        rows_.push_back(std::move(titles));
    }

    void add(std::vector<std::string> row) {
        row.resize(is_right_.size());
        rows_.push_back(std::move(row));
    }

    std::string text() const {
        std::vector<size_t> widths(is_right_.size());
        for (const auto &row : rows_) {
            for (size_t i = 0; i < row.size(); i++) {
                widths[i] = std::max(widths[i], row[i].size());
            }
        }
        std::string all;
        for (const auto &row : rows_) {
            std::string line;
            for (size_t i = 0; i < row.size(); i++) {
                const std::string padding(widths[i] - row[i].size(), ' ');
                line += (i > 0 ? "  " : "") + (is_right_[i] ? padding + row[i] : row[i] + padding);
            }
            line.erase(line.find_last_not_of(' ') + 1);
            all += line + "\n";
        }
        return all;
    }

  private:
    std::vector<bool> is_right_;
    std::vector<std::vector<std::string>> rows_;
};

} // namespace ctl

#endif
