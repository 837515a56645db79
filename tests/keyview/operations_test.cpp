// The contracts of single operations beyond what the sweeps and transcripts cover: the cases of
// cases.txt, and handles and releases.
#include <algorithm>
#include <cstring>
#include <deque>
#include <sstream>

#include <gtest/gtest.h>

#include "operations.h"

// ---- Context ------------------------------------------------------------------------------------

TEST(Context, LockServiceOfTheCallerStaysTheCallers) {
    fake_host host(CLUSTER);
    void *lk = host.make_lock_service();
    prsr_ctx *ctx = nullptr;
    ASSERT_EQ(prsr_init_ext(nullptr, &ctx, lk), PRSR_SUCCESS);
    EXPECT_EQ(prsr_set_db_enabled(host.status, ctx, "sales", 0), PRSR_SUCCESS);
    EXPECT_EQ(prsr_terminate(nullptr, ctx), PRSR_SUCCESS);
    EXPECT_TRUE(host.lines("lksvsinit", "").empty() && host.lines("lksvsterm", "").empty());
    EXPECT_EQ(host.lock_services.erase(lk), 1u);
}

// ---- Cases --------------------------------------------------------------------------------------

// A word of cases.txt with its signs replaced.
static std::string text_of(const std::string &word) {
    std::string text;
    for (size_t i = 0; i < word.size(); ++i) {
        size_t digits = 0;
        if (word[i] == '\\') {
            text += word[++i] == '0' ? '\0' : ' ';
        } else if (word[i] == '^') {
            text.append(stoul(word.substr(i + 1), &digits) - 1, text.back());
        } else {
            text += word[i];
        }
        i += digits;
    }
    return text;
}

// One word of a setup: a name or number of the caller, a key that goes or a value that is stored.
static void set_up(const std::string &word, caller *by, std::deque<std::string> *texts) {
    static const std::map<std::string, const char *caller::*> NAMES = {
        {"db", &caller::db},     {"inst", &caller::inst},   {"srv", &caller::srv},
        {"node", &caller::node}, {"scope", &caller::scope}, {"stg", &caller::stg}};
    size_t equals = std::min(word.find('='), word.size());
    std::string key = word.substr(0, equals),
                value = word.substr(std::min(equals + 1, word.size()));
    if (NAMES.count(key)) {
        const char *text = texts->emplace_back(value).c_str();
        by->*NAMES.at(key) = value == "null" ? nullptr : text;
    } else if (key == "value") {
        by->value = stoi(value);
    } else if (key == "bufsize") {
        by->bufsize = uint32_t(stoul(value));
    } else if (key[0] == '-') {
        bool below = key.back() == '%';
        std::string path = key.substr(1, key.size() - (below ? 3 : 1));
        std::string own = by->host.values[path];
        by->host.remove(path);
        if (below) by->host.put(path, own);
    } else if (key[0] == '%') {
        for (auto &[path, stored] : by->host.values) {
            bool fits = path.size() >= key.size() &&
                        path.compare(path.size() - key.size() + 1, key.size(), key, 1) == 0;
            if (fits) stored = value;
        }
    } else {
        by->host.put(key, value);
    }
}

// The keys whose failures were reported.
static std::string reported(const test_host &host) {
    std::string keys;
    for (const std::string &line : host.lines("log", "0 ")) {
        size_t at = line.find("failed for key ");
        if (at == std::string::npos) continue;
        at += strlen("failed for key ");
        keys += (keys.empty() ? "" : ",") + line.substr(at, line.rfind(" with ") - at);
    }
    return keys;
}

static void run_case(const std::string &operation, std::istringstream words) {
    test_host host(CLUSTER);
    caller by(host);
    std::deque<std::string> texts;
    std::string word;
    while (words >> word && word != ":")
        set_up(text_of(word), &by, &texts);
    words >> word;
    outcome got = run(operation, by);
    EXPECT_EQ(got.rc, CODES.at(word));
    got.out["reports"] = reported(host);
    while (words >> word) {
        word = text_of(word);
        std::string key = word.substr(0, word.find('='));
        bool stored = host.values.count(key) != 0;
        if (word[0] == '!') {
            EXPECT_TRUE(host.lines("open", "open " + word.substr(1)).empty()) << word;
        } else {
            EXPECT_EQ(stored ? host.values[key] : got.out[key], word.substr(key.size() + 1)) << key;
        }
    }
}

TEST(Cases, GiveWhatIsWritten) {
    for (auto &[heading, lines] : sections("cases.txt")) {
        EXPECT_FALSE(lines.empty()) << heading;
        for (const std::string &line : lines) {
            size_t blank = line.find(' ');
            std::istringstream operations(line.substr(0, blank));
            for (std::string name; std::getline(operations, name, '|');) {
                SCOPED_TRACE(heading + ": " + name + line.substr(blank));
                run_case(name, std::istringstream(line.substr(blank)));
            }
        }
    }
}

// ---- Releases -----------------------------------------------------------------------------------

TEST(Release, ForeignAndEmptyThingsAreLeftAlone) {
    test_host host(CLUSTER);
    alignas(prsr_cfg) char foreign[sizeof(prsr_cfg)] = "PRSRCFGC";  // not where that tag belongs
    auto *db = reinterpret_cast<prsr_cfg *>(foreign);
    auto *stg = reinterpret_cast<prsr_stg_cfg *>(foreign);
    auto *node = reinterpret_cast<prsr_nodeapps_cfg *>(foreign);
    EXPECT_EQ(prsr_release_db_config(host.status, host.ctx, db), PRSR_SUCCESS);
    EXPECT_EQ(prsr_release_stg_config(host.status, host.ctx, stg), PRSR_SUCCESS);
    EXPECT_EQ(prsr_release_nodeapps_config(host.status, host.ctx, node), PRSR_SUCCESS);
    EXPECT_EQ(prsr_release_srv_instances(host.status, host.ctx, nullptr, nullptr, nullptr, 3),
              PRSR_SUCCESS);
    char domain[1] = "";
    EXPECT_EQ(prsr_free_domain(nullptr, domain), PRSR_ERR_CONTEXT);
    EXPECT_EQ(prsr_free_domain(host.ctx, nullptr), PRSR_ERR_CONTEXT);
    char *answer = domain;
    EXPECT_EQ(prsr_get_domain(host.status, host.ctx, nullptr, &answer), PRSR_ERR_CONTEXT);
    EXPECT_EQ(answer, domain);
    EXPECT_TRUE(host.events.empty());
}
