// Any text of a job. What is taken must be lines that can be carried out by nobody's hand.
#include "bench.h"
#include "flash/job_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    flash::Text why;
    flash::keep_reason_in(why);
    const std::string text(data, data + size);
    flash::JobFile job{};
    flash::Request request{};
    if (flash::parse_job("job.txt", text, job, request)) {
        const auto reason = why.characters();
        const std::string complaint(reason.begin(), reason.end());
        EXPECT_TRUE(complaint.starts_with("job.txt")) << complaint;
        return 0;
    }
    EXPECT_TRUE(job.name.empty() || flash::is_plain(job.name));
    EXPECT_GT(job.count, 0);
    for (std::size_t i = 0; i < job.count; ++i) {
        EXPECT_FALSE(flash::parse_line(job.lines[i], request));
        EXPECT_TRUE(request.has(flash::MODEL));
        EXPECT_TRUE(request.count >= 1 && request.count <= 6) << request.count;
        EXPECT_FALSE(request.has(flash::ADAPTER));
        platform::FileName expanded{};
        EXPECT_TRUE(!request.has(flash::FILE) ||
                    flash::expand(request.file, {"x", "x", "x"}, expanded));
    }
    return 0;
}
