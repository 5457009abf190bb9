// recvault check: holds a store or a single file against docs/format.md, and tells what does not fit and what to do.
//
// A recorder may be at work: between the steps of an opening, a close or a deletion the folder, its index and the files do
// not agree. So what was found counts only when a second look, a moment later, finds it too in a file that has not changed.
#include "check_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <thread>

#include "command.h"
#include "look_options.h"

namespace recvault_tool {

namespace {

constexpr const char *kReindex = "let a recorder add the partition: that writes the index anew from the files";

struct Totals {
    size_t files = 0;
    size_t unfinished = 0;
};

class FolderCheck {
 public:
    FolderCheck(const ChannelFolder &folder, Findings *findings) : m_folder(folder), m_findings(findings) {}

    // The index is read first: a file that is made meanwhile may lack a record, which the second look sees.
    Totals run() {
        m_index = read_index(m_folder.path);
        for (const auto &entry : entries_of(m_folder.path)) {
            std::error_code error;
            const std::string name = entry.path().filename().string();
            if (is_record_name(name) && entry.is_regular_file(error)) {
                check_file(entry.path(), name);
            } else if (name.ends_with("_idx") && is_record_name(name.substr(0, name.size() - 4))) {
                check_side_file(entry.path(), entry.path().string().substr(0, entry.path().string().size() - 4));
            } else if (name != "rec_index.bin") {
                add(entry.path(), "stranger", "is no file of a store", "move it elsewhere");
            }
        }
        check_index();
        return m_totals;
    }

 private:
    void add(const fs::path &path, const char *defect, std::string text, const char *advice = kReindex) {
        m_findings->push_back({path.string(), defect, std::move(text), advice});
    }

    void check_file(const fs::path &path, const std::string &name) {
        std::error_code error;
        const bool unfinished = fs::exists(side_path(path), error);
        ++m_totals.files;
        m_totals.unfinished += unfinished ? 1 : 0;
        const FileFacts facts = check_record_file(path, unfinished, true, m_findings);
        m_names.insert(name);
        if (facts.first_second >= 0 && day_of(facts.first_second) != m_folder.day)
            add(path, "wrong-day", fmt::format("begins on {}, not on the day of its folder", iso_time(facts.first_second)),
                "move it to the folder of its day");
        const IndexRecord *record = record_of(name);
        if (record == nullptr) {
            add(path, "file-without-record", "has no record in the index of its folder");
        } else if (!unfinished) {
            check_record(path, *record, facts);
        }
    }

    // The last of a name: a name that was deleted may come again.
    const IndexRecord *record_of(const std::string &name) const {
        const IndexRecord *found = nullptr;
        for (const IndexRecord &record : m_index.records) {
            if (!record.deleted() && record.name == name) found = &record;
        }
        return found;
    }

    // A record gets the size of the close, or that of the whole file when the partition is next added.
    void check_record(const fs::path &path, const IndexRecord &record, const FileFacts &facts) {
        if (record.recording) {
            add(path, "record-open", "is finished, but its index record says that it is open");
            return;
        }
        const auto size = static_cast<uint64_t>(record.size);
        if (facts.movi_end != 0 && size != facts.movi_end && size != facts.size)
            add(path, "record-size",
                fmt::format("has {} bytes, {} without its index; its index record says {}", facts.size, facts.movi_end,
                            record.size));
        if (facts.segments.empty() || !facts.segments[0].valid()) return;
        int64_t end = facts.segments[0].end;
        uint32_t types = 0;
        for (const Segment &segment : facts.segments) {
            if (segment.end - facts.segments[0].begin < kSegmentSpan) end = std::max(end, segment.end);
            types |= segment.types;
        }
        if (record.begin != facts.segments[0].begin || record.end != end)
            add(path, "record-time",
                fmt::format("holds {} to {}; its index record says something else", iso_time(facts.segments[0].begin),
                            iso_time(end)));
        if ((types & ~record.types) != 0)
            add(path, "record-type",
                fmt::format("holds the record types {}, its index record says {}", type_text(types),
                            type_text(record.types)));
    }

    void check_side_file(const fs::path &path, const fs::path &record_file) {
        std::error_code error;
        if (!fs::exists(record_file, error))
            add(path, "side-without-file", "is the side file of a record file that is not there", "delete it");
    }

    void check_index() {
        const fs::path path = m_folder.path / "rec_index.bin";
        if (!m_index.exists) return;  // each file was reported
        if (m_index.size % kIndexRecordSize != 0)
            add(path, "index-torn",
                fmt::format("ends in a record of {} bytes, not {}", m_index.size % kIndexRecordSize, kIndexRecordSize));
        std::set<std::string> seen;
        for (size_t i = 0; i < m_index.records.size(); ++i) check_index_record(path, i, &seen);
    }

    void check_index_record(const fs::path &path, size_t number, std::set<std::string> *seen) {
        const IndexRecord &record = m_index.records[number];
        const std::string subject = fmt::format("has a record at {} ", number * kIndexRecordSize);
        if (record.deleted()) return;
        if (record.name.empty()) {
            add(path, "record-name", subject + "without the name of a record file");
        } else if (!seen->insert(record.name).second) {
            add(path, "record-twice", subject + "for " + record.name + ", as another one is");
        } else if (!record.recording && !m_names.contains(record.name)) {
            add(path, "record-without-file", subject + "for " + record.name + ", which is not there");
        }
        if (record.channel != static_cast<uint32_t>(m_folder.channel))
            add(path, "record-channel",
                subject + fmt::format("for channel {}, its folder is of {}", record.channel, m_folder.channel));
        if (record.types > kAllTypes) add(path, "record-types", subject + fmt::format("with the types {:#x}", record.types));
    }

    const ChannelFolder &m_folder;
    Findings *m_findings;
    Index m_index;
    std::set<std::string> m_names;
    Totals m_totals;
};

// ---- Two looks ----

// What tells that a file was not touched between two looks; of a folder, that no name came or went.
std::string state_of(const fs::path &path) {
    std::error_code error;
    const auto time = fs::last_write_time(path, error).time_since_epoch().count();
    const uint64_t size = fs::is_regular_file(path, error) ? fs::file_size(path, error) : 0;
    return fmt::format("{} {}", time, size);
}

struct Look {
    Findings findings;
    Totals totals;
    std::map<std::string, std::string> states;
};

// A folder or a single file.
struct Subject {
    std::function<Totals(Findings *)> look_at;
    Look look;
};

Look look_at(const Subject &subject) {
    Look look;
    look.totals = subject.look_at(&look.findings);
    for (const Finding &finding : look.findings) look.states.emplace(finding.path, state_of(finding.path));
    std::sort(look.findings.begin(), look.findings.end());
    return look;
}

// Keeps what this look finds as the last one did. True when that is all: nothing is changing.
bool look_again(Subject *subject) {
    Look &last = subject->look;
    Look next = look_at(*subject);
    Findings lasting;
    for (const Finding &finding : next.findings) {
        if (last.states[finding.path] == next.states[finding.path] &&
            std::binary_search(last.findings.begin(), last.findings.end(), finding))
            lasting.push_back(finding);
    }
    const bool settled = lasting.size() == next.findings.size();
    last = std::move(next);
    return settled;
}

void look_twice(std::vector<Subject> *subjects) {
    constexpr auto kMoment = std::chrono::milliseconds(700);  // an opening, a close or a deletion takes far less
    constexpr int kTries = 10;
    std::vector<Subject *> doubtful;
    const Progress progress;
    for (Subject &subject : *subjects) {
        progress.show(fmt::format("{} of {} looked at", &subject - subjects->data(), subjects->size()));
        subject.look = look_at(subject);
        if (!subject.look.findings.empty()) doubtful.push_back(&subject);
    }
    for (int i = 0; i < kTries && !doubtful.empty(); ++i) {
        std::this_thread::sleep_for(kMoment);
        std::erase_if(doubtful, look_again);
    }
    for (Subject *subject : doubtful) subject->look.findings.clear();  // what goes on changing is not judged
}

// ---- The command ----

void check_store(const std::string &root, Findings *findings, Totals *totals) {
    const auto stray = [findings](const fs::path &path, const char *what) {
        findings->push_back({path.string(), fmt::format("{}-folder", what), fmt::format("is no {} folder", what),
                             "move it elsewhere: a recorder may remove it"});
    };
    const std::vector<ChannelFolder> folders = channel_folders(root, {}, stray);
    std::vector<Subject> subjects;
    subjects.reserve(folders.size());
    for (const ChannelFolder &folder : folders)
        subjects.push_back({[&folder](Findings *found) { return FolderCheck(folder, found).run(); }, {}});
    look_twice(&subjects);
    for (const Subject &subject : subjects) {
        findings->insert(findings->end(), subject.look.findings.begin(), subject.look.findings.end());
        totals->files += subject.look.totals.files;
        totals->unfinished += subject.look.totals.unfinished;
    }
}

void check_single_file(const fs::path &path, Findings *findings, Totals *totals) {
    if (!Source(path).is_open()) throw Failure(path.string() + " cannot be read: run this as a user who may read it");
    std::vector<Subject> subjects(1);
    subjects[0].look_at = [&path](Findings *found) {
        std::error_code error;
        const bool unfinished = fs::exists(side_path(path), error);
        check_record_file(path, unfinished, false, found);
        return Totals{1, unfinished ? 1U : 0U};
    };
    look_twice(&subjects);
    *findings = std::move(subjects[0].look.findings);
    *totals = subjects[0].look.totals;
}

void print_findings(const Findings &findings, const Totals &totals) {
    for (const Finding &finding : findings)
        fmt::print("{}: {} [{}]; {}\n", finding.path, finding.text, finding.defect, finding.advice);
    fmt::print("{} files, {} findings", totals.files, findings.size());
    if (totals.unfinished > 0)
        fmt::print("; {} not finished: they are open, or were cut and are mended when the partition is next added",
                   totals.unfinished);
    fmt::print("\n");
}

void print_findings_json(const Findings &findings, const Totals &totals) {
    auto list = nlohmann::json::array();
    for (const Finding &f : findings)
        list.push_back({{"path", f.path}, {"defect", f.defect}, {"text", f.text}, {"advice", f.advice}});
    print_json({{"files", totals.files}, {"unfinished", totals.unfinished}, {"findings", list}});
}

void check(const std::string &path, bool json) {
    Findings findings;
    Totals totals;
    std::error_code error;
    if (fs::is_regular_file(path, error)) {
        check_single_file(path, &findings, &totals);
    } else {
        require_store(path);
        check_store(path, &findings, &totals);
    }
    json ? print_findings_json(findings, totals) : print_findings(findings, totals);
    if (!findings.empty()) throw CLI::RuntimeError(1);
}

}  // namespace

void add_check(CLI::App &app) {
    CLI::App *command = app.add_subcommand(
        "check",
        "Hold a store or a record file against its format. Nothing is changed, and a recorder may be at work.\n"
        "Exit code 0: nothing was found, 1: something was, 2: it could not be looked at");
    const auto path = std::make_shared<std::string>();
    const auto json = std::make_shared<bool>(false);
    command->add_option("PATH", *path, "Root of a partition, or a record file")->required();
    command->add_flag("--json", *json, "Print JSON, for programs");
    command->callback([path, json] {
        try {
            check(*path, *json);
        } catch (const Failure &failure) {
            fmt::print(stderr, "recvault: {}\n", failure.what());
            throw CLI::RuntimeError(2);
        }
    });
}

}  // namespace recvault_tool
