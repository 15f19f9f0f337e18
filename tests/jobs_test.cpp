// Jobs as people write them, and what machines say about them.
#include "jobs/job.h"
#include "jobs/results.h"
#include "lab.h"
#include "qfu/sha256.h"
#include "support/input_error.h"

#include <fstream>
#include <gtest/gtest.h>

namespace {

TEST(Job, IsRefusedWithTheLineAndWhatIsAllowed) {
    lab::Lab lab;
    lab.write_file("a.bin", lab::pattern(3000));
    const auto complaint = [&](const std::string& text) -> std::string {
        lab.write_file("job.toml", text);
        try {
            jobs::load_job(lab.folder(), 0x800000);
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
            EXPECT_EQ(complaint(text), (lab.folder() / "job.toml").string() + ":" + line.substr(3));
            ++count;
        }
        text = line.empty() ? "" : text + line + "\n";
    }
    EXPECT_EQ(count, 7);
    EXPECT_EQ(complaint("[[adapter]]\ndevice = 0xC709\nimage = \"a.bin\"\nchip = \"512K\"\n"
                        "address = 0x7F448\nplaces = [\"00:02.0\"]\n[[adapter]]\nall = true\n"
                        "image = \"a.bin\"\nplaces = [\"1:4.0\", \"3f:f.0\"]\n"),
              "none");
}

TEST(Results, AreFoundInALogAndKeptByMachineAndPlace) {
    const std::string bad =
        "QFU-RESULT machine=A serial=S1 adapter=1 place=[Bus=1] status=failed -- FAILED. ;";
    jobs::Results results;
    results.add("\x1b[2J\x1b[01;01HQFU-JOB machine=A serial=S1 job=new ;\r\n", "first");
    ASSERT_EQ(results.adapters().size(), 1U);
    EXPECT_EQ(results.adapters()[0].word("status"), "unfinished");
    results.add("QFU-FOUND machine=A serial=S1 job=new adapter=0 place=[Bus=0] ;\r\n"
                "QFU-FOUND machine=A serial=S1 adapter=1 place=[Bus=1] ;\r\n"
                "QFU-RESULT machine=A serial=S1 job=new adapter=0 place=[Bus=0] sta\r\n\x1b[37mtus="
                "done -- done. ;\r\n",
                "first");
    ASSERT_EQ(results.adapters().size(), 2U);
    EXPECT_TRUE(results.adapters()[0].is_done());
    EXPECT_EQ(results.adapters()[0].text, "done.");
    EXPECT_EQ(results.adapters()[1].word("status"), "unfinished");
    results.add("QFU-RESULT machine=A serial=S1 adapter=none status=refused -- damaged. ;",
                "second");
    EXPECT_EQ(results.adapters()[1].text, "damaged.");
    EXPECT_TRUE(results.adapters()[0].is_done()) << "what was done stays done";
    // A line that was cut, with the next one behind it.
    EXPECT_TRUE(results.add("QFU-RESULT machine=A adapter=1 place=[Bus=1] status=held" + bad, "3"));
    EXPECT_FALSE(results.add("BdsDxe: no bootable device", "third"));
    ASSERT_EQ(results.adapters().size(), 2U);
    EXPECT_EQ(results.adapters()[1].word("status"), "failed");
    EXPECT_EQ(
        results.missing({
            "", {{"s1", 1}, {"A", 2}, {"B", 1}}
    }),
        (std::vector<std::string>{"A: 1 of 2 adapters are done", "B: 0 of 1 adapters are done"}));
    EXPECT_EQ(results.missing({"new", {{"a", 1}}}), std::vector<std::string>{});
    EXPECT_EQ(results.missing({"old", {{"A", 1}}}).size(), 1U);
    results.add("QFU-RESULT machine=B adapter=none status=refused -- none. ;", "fourth");
    results.add("QFU-FOUND machine=B adapter=0 place=[Bus=0] ;", "fifth");
    ASSERT_EQ(results.adapters().size(), 3U);
    EXPECT_EQ(results.adapters()[2].word("adapter"), "0");
    EXPECT_NE(jobs::json(results, {}, false).find(R"("says": "FAILED.")"), std::string::npos);
}

TEST(Results, OfTwoMachinesAreNotMixedWhereNamesAreEqual) {
    jobs::Results results;
    const auto add = [&](const std::string& name, const char* status, const char* file) {
        results.add("QFU-RESULT " + name + " adapter=0 place=[Bus=0] status=" + status + " ;",
                    file);
    };
    add("machine=A serial=S1", "failed", "first");
    add("machine=A serial=S2", "done", "second");
    add("machine=unknown serial=unknown", "failed", "first");
    add("machine=unknown serial=unknown", "done", "second");
    EXPECT_EQ(results.adapters().size(), 4U);
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
