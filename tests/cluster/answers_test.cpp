// Changes whose answer is lost, while other programs change the tree.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "shared.h"

namespace keyview::test {

// Forwards one connection to a member. Once a request contains the mark, it is forwarded, no answer
// is any more, and then the sink is called.
class answer_thief {
  public:
    answer_thief(const std::string &member, std::string mark, std::function<void()> then)
        : mark_(std::move(mark)), then_(std::move(then)) {
        sockaddr_in own = address_of("127.0.0.1:0");
        socklen_t size = sizeof(own);
        (void)bind(listener_, reinterpret_cast<sockaddr *>(&own), size);
        (void)listen(listener_, 1);
        (void)getsockname(listener_, reinterpret_cast<sockaddr *>(&own), &size);
        address = "127.0.0.1:" + std::to_string(ntohs(own.sin_port));
        thread_ = std::thread([this, member] { forward(address_of(member)); });
    }
    answer_thief(const answer_thief &) = delete;
    answer_thief &operator=(const answer_thief &) = delete;
    ~answer_thief() {
        over_ = true;
        thread_.join();
        close(listener_);
    }

    std::string address;
    bool stole() const { return stolen_; }

  private:
    static sockaddr_in address_of(const std::string &text) {
        sockaddr_in out = {};
        out.sin_family = AF_INET;
        out.sin_port = htons(static_cast<uint16_t>(std::stoi(text.substr(text.find(':') + 1))));
        out.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return out;
    }

    void forward(sockaddr_in member) {
        pollfd ends[2] = {{listener_, POLLIN, 0}, {-1, POLLIN, 0}};
        while (!over_ && poll(ends, 1, 20) < 1)
            continue;
        if (over_) return;
        ends[0].fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        ends[1].fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        (void)connect(ends[1].fd, reinterpret_cast<sockaddr *>(&member), sizeof(member));
        for (bool alive = true; alive && !over_;) {
            if (poll(ends, 2, 20) < 1) continue;
            for (int from : {0, 1})
                if (ends[from].revents != 0)
                    alive = alive && pass(ends[from].fd, ends[1 - from].fd, from == 0);
        }
        close(ends[0].fd);
        close(ends[1].fd);
    }

    bool pass(int from, int to, bool is_request) {
        char some[65536];
        ssize_t got = read(from, some, sizeof(some));
        if (got <= 0) return false;
        const std::string bytes(some, static_cast<size_t>(got));
        if (stolen_ && !is_request) return true;
        if (write(to, some, bytes.size()) != got) return false;
        if (is_request && !stolen_ && bytes.find(mark_) != bytes.npos) {
            stolen_ = true;
            try {
                then_();
            } catch (const host_error &error) {
                ADD_FAILURE() << error.what();
            }
        }
        return true;
    }

    int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::string mark_;
    std::function<void()> then_;
    std::atomic<bool> over_{false};
    std::atomic<bool> stolen_{false};
    std::thread thread_;
};

// What was carried out without an answer, and replaced by another program, is not carried out again.
TEST(Answers, AChangeIsCarriedOutOnce) {
    etcd_members &three = shared_members();
    const std::string prefix = fresh_prefix();
    backend other = open_cluster(three.url(prefix));
    std::vector<change> many;  // more than a transaction holds
    for (int n = 0; n < 150; ++n)
        many.push_back(put("a.c" + std::to_string(n), "x"));
    const struct {
        const char *label;
        std::string mark;  // of the request that changes the tree
        bool set;
        std::vector<change> before;
    } ROWS[] = {{"a set", "stolen", true, {}},
                {"a change set", "stolen", false, {}},
                {"one in pieces", "process " + std::to_string(getpid()), false, many}};
    for (const auto &row : ROWS) {
        other.keys->apply({put("a.b", "before"), removal("a.c0")});
        const auto is_made = [&] {
            return row.before.empty() ? value_at(other, "a.b") == "stolen"
                                      : other.keys->finish_apply(finish::resume);
        };
        {
            answer_thief thief(three.address(0), row.mark, [&] {
                while (!is_made())
                    continue;
                other.keys->apply({put("a.b", "after")});
            });
            backend mine =
                open_cluster("etcd://" + thief.address + "," + three.address(1) + prefix);
            std::vector<change> changes = row.before;
            changes.push_back(put("a.b", "stolen"));
            try {
                if (row.set)
                    mine.keys->set("a.b", "stolen", nullptr);
                else
                    mine.keys->apply(changes);
            } catch (const host_error &error) {
                EXPECT_EQ(error.kind, failure::changed) << row.label << ": " << error.what();
            }
            EXPECT_TRUE(thief.stole()) << row.label;
        }
        EXPECT_EQ(value_at(other, "a.b"), "after") << row.label;
    }
}

}  // namespace keyview::test
