// Compares the calls and log lines of the operations with transcripts.txt, which explains how it is
// read.
#include <algorithm>
#include <sstream>

#include <gtest/gtest.h>

#include "operations.h"

static std::vector<std::string> written(const std::vector<std::string> &lines) {
    std::vector<std::string> found;
    for (const std::string &line : lines) {
        for (size_t at = 0; at < line.size();) {
            size_t end = std::min(line.find("; ", at), line.size());
            std::istringstream words(line.substr(at, end - at));
            std::string first, function, call, key;
            int32_t code = 0;
            words >> first >> function >> call >> key >> code;
            std::vector<std::string> calls = {words.str()};
            if (first == "report") {
                calls = report(function, call, key, code);
                calls.insert(calls.begin(), "last_error");
            }
            found.insert(found.end(), calls.begin(), calls.end());
            at = end + 2;
        }
    }
    return found;
}

// The calls that were made, from the first one that is written.
static std::vector<std::string> made(const test_host &host, const std::string &first, bool frees) {
    std::vector<std::string> found;
    for (const fake_event &event : host.events) {
        bool begun = !found.empty() || event.text == first;
        if (begun && (frees || event.call != "free")) found.push_back(event.text);
    }
    return found;
}

TEST(Transcript, CallsAndLogLinesAreAsWritten) {
    auto transcripts = sections("transcripts.txt");
    EXPECT_GT(transcripts.size(), 70u);
    for (auto &[heading, lines] : transcripts) {
        SCOPED_TRACE(heading);
        std::istringstream words(heading);
        std::string operation, call, subject;
        int32_t nth = 0, code = 0;
        words >> operation >> call >> subject >> nth >> code;
        test_host host(CLUSTER);
        if (!call.empty()) host.fail(call, subject == "-" ? "" : subject, nth, code);
        if (!call.empty()) operation.pop_back();  // the colon
        run(operation, host);
        std::vector<std::string> expected = written(lines);
        std::vector<std::string> actual =
            made(host, call.empty() ? host.events[0].text : expected[0],
                 operation.find("prsr_fetch_") != 0);
        if (expected.back() == "...") {
            expected.pop_back();
            actual.resize(std::min(actual.size(), expected.size()));
        }
        EXPECT_TRUE(host.fired());
        EXPECT_EQ(joined(actual), joined(expected));
    }
}
