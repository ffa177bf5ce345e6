#ifndef NVB_TESTS_SU_PINNED_ROWS_H
#define NVB_TESTS_SU_PINNED_ROWS_H

// Pinned values of the compact forms as rows of a text file under tests/data/su/: a group
// name, then fields separated by blanks; `#` starts a comment. A byte string is hex, most
// significant byte first, `-` when empty, dots grouping the digits at will; a number is
// decimal or 0x hex.

#include "support/wire.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace nvbtest {

struct PinnedRow {
    std::string where;  // file:line, for the failure message
    std::vector<std::string> fields;

    template <typename T = long long>
    T number(std::size_t at) const {
        const std::string& text = fields.at(at);
        return static_cast<T>(text[0] == '-' ? std::stoll(text, nullptr, 0) : std::stoull(text, nullptr, 0));
    }
    double real(std::size_t at) const { return std::stod(fields.at(at)); }
    Bytes bytes(std::size_t at) const {
        std::string text = fields.at(at);
        std::erase(text, '.');
        Bytes out;
        if (text != "-" && text.size() % 2 != 0) ADD_FAILURE() << where << ": odd hex " << text;
        for (std::size_t i = 0; text != "-" && i + 1 < text.size(); i += 2)
            out.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
        return out;
    }
    friend std::ostream& operator<<(std::ostream& out, const PinnedRow& row) { return out << row.where; }
};

// The rows of `group` in `file`; a group without rows is a test failure, never a pass.
inline std::vector<PinnedRow> pinnedRows(const std::string& file, const std::string& group) {
    std::ifstream in(std::string(NVBDLL_TEST_DATA_DIR) + "/su/" + file);
    std::vector<PinnedRow> rows;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string name;
        if (!(words >> name) || name != group) continue;
        PinnedRow row{file + ":" + std::to_string(number), {}};
        for (std::string word; words >> word;) row.fields.push_back(word);
        rows.push_back(std::move(row));
    }
    EXPECT_FALSE(rows.empty()) << "no rows of " << group << " in " << file;
    return rows;
}

// Names each instance of a typed suite by its traits' kName, the group its rows go under.
struct RowGroupNames {
    template <typename Traits>
    static std::string GetName(int) {
        return Traits::kName;
    }
};

// The record a row names in its first field (one of `named`, else hex), with the edits of its
// second: `-` or comma-separated AT=HEX (set the byte), AT^HEX (flip its bits), AT+HEX and
// AT-HEX (add, subtract), AT<HEX (insert a byte before it). AT counts from the end when
// negative; @K is the first byte of the K-th block, blocks carrying their length first from
// byte 4, and @K:N the N-th byte on from there; `size` is the record's length.
inline Bytes edited(const PinnedRow& row, const std::map<std::string, Bytes>& named) {
    const auto found = named.find(row.fields.at(0));
    Bytes record = found != named.end() ? found->second : row.bytes(0);
    std::istringstream edits(row.fields.at(1) == "-" ? "" : row.fields[1]);
    for (std::string edit; std::getline(edits, edit, ',');) {
        const std::size_t op = edit.find_first_of("=^+-<", 1);
        const auto value = static_cast<std::uint8_t>(std::stoul(edit.substr(op + 1), nullptr, 16));
        if (edit.starts_with("size")) {
            record.resize(edit[op] == '=' ? value : record.size() - value);
            continue;
        }
        long at = edit[0] == '@' ? 4 : std::stol(edit.substr(0, op));
        if (edit[0] == '@') {
            for (int block = std::stoi(edit.substr(1)); block > 1; --block)
                at += record.at(static_cast<std::size_t>(at));
            if (const std::size_t colon = edit.find(':'); colon < op) at += std::stol(edit.substr(colon + 1));
        }
        const auto where = static_cast<std::size_t>(at < 0 ? static_cast<long>(record.size()) + at : at);
        if (edit[op] == '<') {
            record.insert(record.begin() + static_cast<long>(where), value);
            continue;
        }
        std::uint8_t& byte = record.at(where);
        const char how = edit[op];
        byte = static_cast<std::uint8_t>(how == '='   ? value
                                         : how == '^' ? byte ^ value
                                         : how == '+' ? byte + value
                                                      : byte - value);
    }
    return record;
}

}  // namespace nvbtest

#endif
