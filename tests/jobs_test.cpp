// Jobs as people write them, and what machines say about them.
#include "jobs/folder.h"
#include "jobs/results.h"
#include "lab.h"
#include "qfu/sha256.h"
#include "support/input_error.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace {

TEST(Job, IsRefusedWithTheLineAndWhatIsAllowed) {
    lab::Lab lab;
    lab.write_file("a.bin", lab::pattern(3000));
    lab.write_file("SN-1-1.bin", lab::pattern(10));
    const auto complaint = [&](const std::string& text) -> std::string {
        lab.write_file("job.txt", text);
        try {
            jobs::check_folder(lab.folder());
        } catch (const support::InputError& error) {
            return error.what();
        }
        return "none";
    };
    std::ifstream mistakes(QFU_SOURCE_DIR "/tests/job_mistakes.txt");
    std::string line;
    std::string text;
    int count = 0;
    while (std::getline(mistakes, line)) {
        if (line.starts_with("=> ")) {
            EXPECT_EQ(complaint(text), line.substr(3));
            ++count;
        }
        text = line.empty() || line.starts_with("=> ") ? "" : text + line + "\n";
    }
    EXPECT_EQ(count, 22);
    EXPECT_EQ(complaint(std::string(1025, ' ')),
              "job.txt:1: the line is too long; allowed: 1024 characters");
    std::string lines;
    for (int i = 0; i < 64; ++i) {
        lines += "erase -model any\n";
    }
    EXPECT_EQ(complaint(lines), "none");
    EXPECT_EQ(complaint(lines + "erase -model any"), "job.txt:65: too many commands; allowed: 64");
    EXPECT_EQ(
        complaint("erase -model any\t\r\n# \xC3\xBC\r\nwrite {serial}-1.BIN -model 1E5D:c709"),
        "none");
    lab.write_file("job.txt",
                   "write {serial}-1.bin -model any\nbackup b -addr 0 -sz 0x100 -model any");
    const jobs::Folder folder = jobs::check_folder(lab.folder());
    ASSERT_EQ(folder.images.size(), 1U);
    EXPECT_EQ(folder.images[0].name, "SN-1-1.bin");
    EXPECT_EQ(folder.room, 10U + 0x100 + 2 * 0x21000);
}

std::string statuses(const jobs::Results& results) {
    std::string text;
    for (const jobs::Line& line : results.lines()) {
        text += std::string(line.word("place")) + "/" + std::string(line.word("step")) + "=" +
                std::string(line.word("status")) + " ";
    }
    return text;
}

/// Lines of one machine's job; "J" begins a run, "F 0 2" finds place 0 with two steps, "R 0 1 done"
/// is a result.
std::string log(const std::string& name, const std::string& words) {
    std::istringstream in(words);
    std::string text;
    for (std::string kind, place, step, status; in >> kind;) {
        if (kind == "J") {
            text += "QFU-JOB " + name + " ;\r\n";
        } else if (kind == "F") {
            in >> place >> step;
            text += "QFU-FOUND " + name + " place=" + place + " steps=" + step + " ;\r\n";
        } else {
            in >> place >> step >> status;
            text += "QFU-RESULT " + name + " place=" + place + " step=" + step +
                    " status=" + status + " -- It is " + status + ". ;\r\n";
        }
    }
    return text;
}

TEST(Results, OfTheLastRunCountUnlessItDidNotEnd) {
    const std::string name = "machine=A serial=S1 job=new";
    jobs::Results results;
    EXPECT_FALSE(results.add("BdsDxe: no bootable device", "0"));
    results.add("\x1b[2J\x1b[01;01H" + log(name, "J F 0 2 F 1 1 R 0 1 done R 1 1 fai"), "1");
    EXPECT_EQ(statuses(results), "0/1=done 0/-=unfinished 1/1=fai ");
    EXPECT_EQ(results.problems().size(), 1U);
    EXPECT_EQ(results.missing({"", {{"a", 1}}}).size(), 1U) << "one step of two is no adapter";
    results.add(log(name, "J F 0 2 F 1 1 R 0 1 held R 0 2 done R 1 1 failed"), "2");
    EXPECT_EQ(statuses(results), "0/1=held 0/2=done 1/1=failed ");
    EXPECT_TRUE(results.problems().empty());
    // The power is lost: what is complete counts, and the run before for the rest.
    results.add(log(name, "J F 0 2 F 1 1 R 1 1 done R 0 1 done"), "3");
    EXPECT_EQ(statuses(results), "0/1=held 0/2=done 1/1=done ");
    EXPECT_EQ(results.problems(), std::vector<std::string>{"A, job new: the last run is "
                                                           "unfinished: no result; was the power "
                                                           "lost?"});
    EXPECT_TRUE(results.missing({"new", {{"s1", 2}}}).empty());
    EXPECT_EQ(results.missing({"old", {{"A", 1}}}),
              std::vector<std::string>{"A: 0 of 1 adapters are done"});
    // A run that is refused, and one with an adapter less.
    results.add(
        log(name, "J") + "QFU-RESULT " + name + " adapter=none status=refused -- damaged. ;", "4");
    EXPECT_EQ(statuses(results), "0/1=held 0/2=done 1/1=done ");
    EXPECT_EQ(results.problems().size(), 1U);
    results.add(log(name, "J F 0 1 R 0 1 done"), "5");
    EXPECT_EQ(statuses(results), "0/1=done ");
}

TEST(Results, KeepMachinesApartAndDistrustTheirTexts) {
    jobs::Results results;
    const std::string unknown = "machine=unknown serial=unknown job=j";
    results.add(log("machine=A serial=S1 job=j", "J F 0 1 R 0 1 failed"), "1");
    results.add(log("machine=A serial=S2 job=j", "J F 0 1 R 0 1 done"), "1");
    results.add(log(unknown, "J F 0 1 R 0 1 failed"), "1");
    results.add(log(unknown, "J F 0 1 R 0 1 done"), "2");
    EXPECT_EQ(results.lines().size(), 4U);
    results.add(
        "QFU-RESULT machine=B job=j image=a sha256=1 place=0 step=1 status=do\r\n\x1b[37mne -- "
        "=1+1 \"\x1b]0;\xFF ;QFU-RESULT machine=C job=j image=a sha256=2 place=0 ;",
        "3");
    EXPECT_EQ(results.problems()[0], "job j: a has two checksums, 1 and 2");
    std::ostringstream out;
    jobs::print_csv(results.lines(), out);
    EXPECT_NE(out.str().find("\"done\",\"'=1+1 \"\"?]0;?\""), std::string::npos) << out.str();
    EXPECT_NE(jobs::json(results.lines(), {}, false).find("\"says\": \"It is failed.\""),
              std::string::npos);
}

TEST(Sha256, GivesThePublishedSums) {
    const auto sum = [](const std::string& text) {
        QFU_SHA256 sha;
        sha.add({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
        std::string hex;
        for (const std::uint8_t byte : sha.finish()) {
            hex.push_back("0123456789abcdef"[byte >> 4]);
            hex.push_back("0123456789abcdef"[byte & 15]);
        }
        return hex;
    };
    EXPECT_EQ(sum("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(sum(std::string(1'000'000, 'a')),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

} // namespace
