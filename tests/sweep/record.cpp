/*
 * The record of an operation: what it does without a fault, and under each call that fails. Faults whose outcomes are
 * the same share an entry, with the codes and the reaches that lead to it.
 */
#include <algorithm>
#include <cstdio>

#include "kr_status.h"
#include "tests/sweep/sweep.h"

namespace kr_test {
namespace {

std::string joined(const std::vector<std::string> &parts, const char *separator) {
    std::string text;
    for (const std::string &part : parts) {
        text += (text.empty() ? "" : separator) + part;
    }
    return text;
}

void replace_all(std::string *text, const std::string &what, const std::string &by) {
    for (size_t at = text->find(what); at != std::string::npos; at = text->find(what, at + by.size())) {
        text->replace(at, what.size(), by);
    }
}

// The outcome with the code, where a text names it in brackets, as <code> and its text as <text>.
outcome with_placeholders(outcome of, uint32_t code, bool is_status) {
    const std::string number = std::to_string(code);
    for (std::string &line : of.lines) {
        if (line.find('"') == std::string::npos) {
            continue; // not of the log
        }
        replace_all(&line, '(' + number + ')', "(<code>)");
        replace_all(&line, '[' + number + ']', "[<code>]");
        replace_all(&line, "rc = " + number + '"', "rc = <code>\"");
        if (is_status) {
            replace_all(&line, '(' + std::string(kr_status_str(code)) + ')', "(<text>)");
            replace_all(&line, '[' + std::string(kr_status_str(code)) + ']', "[<text>]");
            replace_all(&line, std::string(kr_status_str(code)) + ".\"", "<text>.\"");
        }
    }
    if (of.status == number) {
        of.status = "<code>";
    }
    return of;
}

std::string body(const outcome &of) {
    std::string text;
    for (const std::string &line : of.lines) {
        const size_t tab = line.find('\t');
        char index[16];
        (void)snprintf(index, sizeof index, "%6s  ", line.substr(0, tab).c_str());
        text += index + line.substr(tab + 1) + '\n';
    }
    text += "  -> " + of.status + (of.changes.empty() ? ", no change" : ", " + of.changes) + '\n';
    text += of.outputs.empty() ? "" : "  hands out " + of.outputs + '\n';
    return text;
}

} // namespace

std::string outcome_text(const outcome &of) {
    std::string text = body(of);
    if (!of.again_status.empty() || !of.again_state.empty()) {
        text += "  again" + (of.again_status.empty() ? "" : " -> " + of.again_status) +
                (of.again_state.empty() || !of.again_status.empty() ? "" : " with " + joined(of.again_state, "; ")) +
                '\n';
    }
    text += of.again_outputs.empty() ? "" : "  again hands out " + of.again_outputs + '\n';
    text += of.trouble.empty() ? "" : "  on the way back: " + joined(of.trouble, "; ") + '\n';
    text += of.left.empty() ? "" : "  at the end: " + joined(of.left, "; ") + '\n';
    for (const std::string &line : of.broken) {
        text += "  BROKEN: " + line + '\n';
    }
    return text;
}

std::string fault_name(const operation &operation, const fault &fault) {
    std::string text = operation.name + '/' + std::to_string(fault.nth) + '=' + std::to_string(fault.code) + '/';
    switch (fault.reach) {
    case fault_reach::none:
        return operation.name;
    case fault_reach::one_call:
        return text + (fault.second ? "then " + std::to_string(*fault.second) : "alone");
    case fault_reach::this_class:
        return text + "class";
    case fault_reach::everything:
        return text + "all";
    }
    return text;
}

bool fault_of_name(const std::string &name, std::string *operation_name, fault *fault) {
    const size_t slash = name.find('/');
    *operation_name = name.substr(0, slash);
    *fault = {};
    if (slash == std::string::npos) {
        return true;
    }
    char reach[16] = "";
    unsigned nth = 0;
    unsigned code = 0;
    unsigned second = 0;
    if (sscanf(name.c_str() + slash, "/%u=%u/then %u", &nth, &code, &second) == 3) {
        *fault = {fault_reach::one_call, nth, code, second};
        return true;
    }
    if (sscanf(name.c_str() + slash, "/%u=%u/%15s", &nth, &code, reach) != 3) {
        return false;
    }
    const std::string word = reach;
    *fault = {word == "all"     ? fault_reach::everything
              : word == "class" ? fault_reach::this_class
                                : fault_reach::one_call,
              nth,
              code,
              {}};
    return word == "all" || word == "class" || word == "alone";
}

namespace {

// An entry of the record: one outcome and all that leads to it.
struct entry {
    std::string text; // of the outcome, with placeholders if several codes share it
    std::vector<std::string> codes;
    std::vector<std::string> reaches;
};

class sweeper {
  public:
    explicit sweeper(const operation &operation) : operation_(operation) {}

    sweep_result run() {
        expected_ = run_in_a_process(operation_, {}, nullptr);
        note_broken({}, expected_);
        const bool is_made = std::any_of(expected_.calls.begin(), expected_.calls.end(), [&](const failing_call &call) {
            return operation_.must_call == nullptr || call.name == operation_.must_call;
        });
        if (!is_made && operation_.must_call != nullptr) {
            result_.broken.push_back(operation_.name + " does not call " + operation_.must_call);
        }
        std::string text = "operation " + operation_.name + " (" + operation_.covers + "), from stage " +
                           stage_name(operation_.from) + "\n\nno fault\n" + outcome_text(expected_);
        for (const failing_call &call : expected_.calls) {
            sweep_call(call);
            if (!has_ended_) {
                break; // many runs that hang take long
            }
        }
        result_.call_count = static_cast<uint32_t>(expected_.calls.size());
        result_.record = text + entries_;
        return result_;
    }

  private:
    outcome run_one(const fault &fault, const std::string &call_name) {
        outcome of = run_in_a_process(operation_, fault, &expected_);
        result_.fault_count++;
        has_ended_ &= of.has_ended;
        note_broken(fault, of);
        if (of.failed_call.empty()) {
            note(fault, "nothing failed");
        }
        shorten(fault, &of);
        if (of.failed_count != 1) {
            return of; // what several failures leave is what the record says
        }
        check_again(fault, call_name, of);
        return of;
    }

    // What is as it is without a fault is not told again.
    void shorten(const fault &fault, outcome *of) {
        const std::string index = std::to_string(fault.nth) + '\t';
        const auto failed = std::find_if(expected_.lines.begin(), expected_.lines.end(),
                                         [&](const std::string &line) { return line.starts_with(index); });
        if (failed != expected_.lines.end() && !of->lines.empty() &&
            std::equal(failed + 1, expected_.lines.end(), of->lines.begin(), of->lines.end())) {
            of->lines = {"\t... as without a fault"};
        }
        if (of->status == expected_.status && of->changes == expected_.changes && !of->changes.empty()) {
            of->changes = "as without a fault";
        }
        if (of->outputs == expected_.outputs && !of->outputs.empty()) {
            of->outputs = "the same";
        }
    }

    void check_again(const fault &fault, const std::string &call_name, const outcome &of) {
        bool is_repeatable = true;
        std::set<std::string> may_differ;
        for (const remains &left : operation_.leaves) {
            if ((call_name == left.call || std::string("*") == left.call) && !left.other_codes.contains(fault.code)) {
                is_repeatable &= left.is_repeatable;
                may_differ.insert(left.state.begin(), left.state.end());
            }
        }
        if (is_repeatable && !of.again_status.empty()) {
            note(fault, "made again it returned " + of.again_status);
        }
        if (is_repeatable && !of.again_outputs.empty() && !may_differ.contains("*") &&
            !may_differ.contains("outputs")) {
            note(fault, "made again it handed out " + of.again_outputs);
        }
        if (is_repeatable) {
            note_differences(fault, "made again it left ", of.again_state, may_differ);
        }
        note_differences(fault, "at the end ", of.left, may_differ);
        if (!of.trouble.empty() && !may_differ.contains("*") && !may_differ.contains("way back")) {
            note(fault, "on the way back " + joined(of.trouble, "; "));
        }
    }

    void note(const fault &fault, const std::string &line) {
        result_.broken.push_back(fault_name(operation_, fault) + ": " + line);
    }
    void note_differences(const fault &fault, const char *when, const std::vector<std::string> &lines,
                          const std::set<std::string> &may_differ) {
        for (const std::string &line : lines) {
            const bool may = may_differ.contains("*") ||
                             std::any_of(may_differ.begin(), may_differ.end(),
                                         [&](const std::string &name) { return line.starts_with(name + ' '); });
            if (!may) {
                note(fault, when + line);
            }
        }
    }

    void note_broken(const fault &fault, const outcome &of) {
        for (const std::string &line : of.broken) {
            result_.broken.push_back(fault_name(operation_, fault) + ": " + line);
        }
    }

    void sweep_call(const failing_call &call) {
        const call_row &row = *call_row_of(call.name);
        std::vector<std::pair<uint32_t, outcome>> alone;
        for (const failure_code &code : row.codes) {
            alone.emplace_back(code.value, run_one({fault_reach::one_call, call.index, code.value, {}}, call.name));
        }
        std::vector<entry> entries = grouped(row, alone);
        const uint32_t first = row.codes.front().value;
        const outcome of_class = run_one({fault_reach::this_class, call.index, first, {}}, call.name);
        const outcome of_all = run_one({fault_reach::everything, call.index, first, {}}, call.name);
        add_reach(row, alone.front(), of_class, "and all of its class", &entries);
        add_reach(row, alone.front(), of_all, "and everything", &entries);
        sweep_seconds(call, row, alone.front(), &entries);
        for (size_t i = 1; i < alone.size(); i++) {
            if (alone[i].second.calls != alone.front().second.calls) { // it is taken back in another way
                sweep_seconds(call, row, alone[i], &entries);
            }
        }
        write(call, alone.front().second, entries);
    }

    // With the first failure alone, each call that follows it fails as well: the way in which it is taken back.
    void sweep_seconds(const failing_call &call, const call_row &row, const std::pair<uint32_t, outcome> &alone,
                       std::vector<entry> *entries) {
        for (const failing_call &second : alone.second.calls) {
            if (second.index > call.index && alone.second.status != expected_.status) {
                add_reach(row, alone,
                          run_one({fault_reach::one_call, call.index, alone.first, second.index}, call.name),
                          "then [" + std::to_string(second.index) + "]", entries);
            }
        }
    }

    static std::string code_text(const call_row &row, uint32_t code) {
        for (const failure_code &known : row.codes) {
            if (known.value == code && *known.text != '\0') {
                return known.text;
            }
        }
        return std::to_string(code);
    }

    static bool is_status(const call_row &row) {
        return row.kind == call_class::device || row.kind == call_class::acl_rm;
    }

    static std::vector<entry> grouped(const call_row &row, const std::vector<std::pair<uint32_t, outcome>> &alone) {
        std::vector<entry> entries;
        std::vector<std::string> templates;
        for (const auto &[code, of] : alone) {
            const std::string shared = outcome_text(with_placeholders(of, code, is_status(row)));
            const auto found = std::find(templates.begin(), templates.end(), shared);
            if (found != templates.end()) {
                entry &same = entries[static_cast<size_t>(found - templates.begin())];
                same.text = shared;
                same.codes.push_back(code_text(row, code));
            } else {
                templates.push_back(shared);
                entries.push_back({outcome_text(of), {code_text(row, code)}, {"alone"}});
            }
        }
        return entries;
    }

    static void add_reach(const call_row &row, const std::pair<uint32_t, outcome> &alone, const outcome &of,
                          const std::string &reach, std::vector<entry> *entries) {
        const std::string code = code_text(row, alone.first);
        const bool is_the_same = outcome_text(of) == outcome_text(alone.second);
        for (entry &known : *entries) {
            const bool has_code = std::find(known.codes.begin(), known.codes.end(), code) != known.codes.end();
            const bool is_alone = known.reaches.front() == "alone";
            if (has_code && (is_alone ? is_the_same : known.text == outcome_text(of))) {
                known.reaches.push_back(reach);
                return;
            }
        }
        entries->push_back({outcome_text(of), {code}, {reach}});
    }

    void write(const failing_call &call, const outcome &alone, const std::vector<entry> &entries) {
        const std::string text = alone.failed_call.substr(0, alone.failed_call.rfind(" = "));
        for (const entry &one : entries) {
            entries_ += "\n[" + std::to_string(call.index) + "] " + text + " = " + joined(one.codes, " | ") + ", " +
                        joined(one.reaches, ", ") + '\n' + one.text;
        }
    }

    const operation &operation_;
    outcome expected_;
    std::string entries_;
    bool has_ended_ = true; // all runs so far
    sweep_result result_;
};

} // namespace

sweep_result sweep_operation(const operation &operation) {
    return sweeper(operation).run();
}

} // namespace kr_test
