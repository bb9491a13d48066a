// The daemon's books, without sockets, timers or clocks.
#include "link_book.h"

#include <map>
#include <random>

#include <gtest/gtest.h>

#include "kovad/wire_peer.h"

namespace kova::kovad {
namespace {

using test::Bytes;
using test::words;

struct Sent {
    wire::Kind kind;
    std::uint32_t call_number;
    std::string service;
    Bytes payload;
};

// The rest of the daemon, which remembers what it was asked to do.
class Books : public testing::Test, protected LinkActions {
  protected:
    LinkId connect(std::uint32_t pid) {
        book_.opened(++last_link_, pid, now_);
        return last_link_;
    }
    void request(LinkId link, std::string_view service, const Bytes& payload) {
        book_.received(link, test::message(wire::Kind::kRequest, ++calls_[link], service, payload), now_);
    }
    // Answers the latest request of that service.
    void answer(LinkId link, std::string_view service, const Bytes& payload, std::uint32_t status = 0) {
        std::uint32_t call_number = 0;
        for (const Sent& sent : sent_[link]) {
            if (sent.kind == wire::Kind::kRequest && sent.service == service) call_number = sent.call_number;
        }
        book_.received(link, test::message(wire::Kind::kResponse, call_number, service, payload, status), now_);
    }
    LinkId subscriber(std::uint32_t pid) {
        const LinkId link = connect(pid);
        request(link, "AgentRegInfo", test::registration("routed", pid));
        request(link, "KovaAppSubscribe", words(0U, pid));
        sent_[link].clear();
        return link;
    }
    void publish(std::uint32_t percent) { book_.publish(percent, now_); }

    // The values of the updates that were sent.
    std::vector<std::uint32_t> updates(LinkId link) {
        std::vector<std::uint32_t> values;
        for (const Sent& sent : sent_[link]) {
            if (sent.service != "KovaUpdateResourceInfo" || sent.kind != wire::Kind::kRequest) continue;
            values.push_back(test::at_offset<std::uint32_t>(sent.payload, 4));
        }
        return values;
    }
    // Of the latest page that was sent.
    template <typename Item>
    std::vector<Item> items(LinkId link) {
        const Bytes& page = sent_[link].back().payload;
        std::vector<Item> found(test::at_offset<ListHead>(page, 0).count);
        if (!found.empty()) std::memcpy(found.data(), page.data() + sizeof(ListHead), found.size() * sizeof(Item));
        return found;
    }
    std::vector<ProcessItem> processes() {
        const LinkId asker = connect(1);
        request(asker, kListProcesses, words(0, 0));
        auto found = items<ProcessItem>(asker);
        book_.closed(asker, now_);
        return found;
    }

    void send(LinkId link, std::span<const std::byte> bytes) override {
        wire::Message message;
        ASSERT_EQ(wire::Fault::kNone, wire::decode(bytes, &message));
        ASSERT_EQ(wire::Fault::kNone, wire::check_service(message, wire::Server::kProcess));
        sent_[link].push_back({message.kind,
                               message.call_number,
                               std::string(message.service),
                               {message.payload.begin(), message.payload.end()}});
    }
    void close(LinkId link, std::uint32_t, std::string_view why) override { closed_[link] = why; }
    void set_memory_cycle(std::uint32_t) override {}
    void set_monitored(bool monitored) override { is_monitored_ = monitored; }

    LinkBook book_{*this};
    Moment now_{.steady_ms = 100'000, .utc_s = 1'700'000'000};
    std::map<LinkId, std::vector<Sent>> sent_;
    std::map<LinkId, std::string> closed_;
    std::map<LinkId, std::uint32_t> calls_;
    LinkId last_link_ = 0;
    bool is_monitored_ = false;
};

TEST_F(Books, ListWhoRegisteredUntilItEnds) {
    const LinkId link = connect(42);
    request(link, "AgentRegInfo", test::registration("routed", 42));
    const Sent& response = sent_[link].back();
    EXPECT_EQ(1U, response.call_number);
    EXPECT_STREQ("routed", reinterpret_cast<const char*>(response.payload.data()) + 4);
    EXPECT_EQ(42U, test::at_offset<std::uint32_t>(response.payload, 36));
    const auto listed = processes();
    ASSERT_EQ(1U, listed.size()) << "those who only look are not listed";
    EXPECT_EQ(7U, listed[0].type);
    EXPECT_EQ(ProcessState::kRegistered, listed[0].state);
    EXPECT_EQ(now_.utc_s, listed[0].since_utc_s);
    // The same process over a new connection, before the old one is seen to end.
    const LinkId newer = connect(42);
    request(newer, "AgentRegInfo", test::registration("routed", 42));
    EXPECT_EQ(1U, closed_.count(link));
    EXPECT_EQ(1U, processes().size());
    book_.closed(newer, now_);
    EXPECT_TRUE(processes().empty());
}

TEST_F(Books, SlowProcessesHearTheNewestValueOnly) {
    const LinkId quick = subscriber(10);
    const LinkId stopped = subscriber(11);
    EXPECT_TRUE(is_monitored_);
    for (const std::uint32_t percent : {50U, 60U, 70U}) {
        publish(percent);
        answer(quick, "KovaUpdateResourceInfo", words(0));
        now_.steady_ms += kSilentAfterMs;
    }
    EXPECT_EQ((std::vector<std::uint32_t>{50, 60, 70}), updates(quick));
    EXPECT_EQ((std::vector<std::uint32_t>{50}), updates(stopped));
    EXPECT_EQ(ProcessState::kRegistered, processes()[0].state);
    EXPECT_EQ(ProcessState::kSilent, processes()[1].state);
    // It goes on, and another error of its own does no harm.
    answer(stopped, "KovaUpdateResourceInfo", {}, 12);
    EXPECT_EQ((std::vector<std::uint32_t>{50, 70}), updates(stopped));
    book_.closed(quick, now_);
    EXPECT_TRUE(is_monitored_);
    book_.closed(stopped, now_);
    EXPECT_FALSE(is_monitored_);
}

TEST_F(Books, ARestartedDaemonAsksPublishersForTheirSubscriptions) {
    const struct {
        const char* name;
        Bytes page;
        std::uint32_t status;
        bool is_subscribed;
    } cases[] = {
        {"has some", test::subscribe_page(0, 3), 0, true},
        {"has none any more", test::subscribe_page(0, 0), 0, false},
        {"cannot tell", {}, 12, true},
        {"has too many to tell", test::subscribe_page(0, 0, 0xFFFFFFFF), 0, true},
    };
    std::uint32_t pid = 100;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const LinkId link = connect(++pid);
        request(link, "AgentRegInfo", test::registration("routed", pid, true));
        publish(50);
        EXPECT_TRUE(updates(link).empty());
        answer(link, "KovaGetSubscribe", c.page, c.status);
        publish(51);
        EXPECT_EQ(c.is_subscribed, !updates(link).empty());
        EXPECT_FALSE(closed_.contains(link)) << closed_[link];
    }
}

TEST_F(Books, SubscriptionsAreAskedPageByPageAndListedInPages) {
    const LinkId link = subscriber(10);
    const LinkId stopped = subscriber(11);
    const LinkId asker = connect(20);
    request(asker, kListSubscriptions, words(0, 0));
    for (std::uint32_t first = 0; first < 300; first += 20) {
        EXPECT_EQ(first, test::at_offset<std::uint32_t>(sent_[link].back().payload, 4));
        answer(link, "KovaGetSubscribe", test::subscribe_page(first, 20));
    }
    answer(link, "KovaGetSubscribe", test::subscribe_page(300, 0));
    EXPECT_TRUE(sent_[asker].empty()) << "the other process has not answered";
    ASSERT_EQ(now_.steady_ms + kGatherPatienceMs, book_.deadline_ms());
    now_.steady_ms += kGatherPatienceMs;
    book_.expire(now_);
    auto page = items<SubscriptionItem>(asker);
    ASSERT_EQ(kListPageItems, page.size());
    EXPECT_STREQ("module255", page.back().module_name);
    EXPECT_EQ(1U, page.back().is_fresh);
    request(asker, kListSubscriptions, words(page.back().pid, page.back().index + 1));
    page = items<SubscriptionItem>(asker);
    ASSERT_EQ(44U, page.size());
    EXPECT_STREQ("module299", page.back().module_name);

    // Late, and the next who asks has it; then it stops again, and what it said before is marked.
    answer(stopped, "KovaGetSubscribe", test::subscribe_page(0, 1));
    request(asker, kListSubscriptions, words(0, 0));
    answer(link, "KovaGetSubscribe", test::subscribe_page(0, 0));
    now_.steady_ms += kGatherPatienceMs;
    book_.expire(now_);
    page = items<SubscriptionItem>(asker);
    ASSERT_EQ(1U, page.size());
    EXPECT_EQ(11U, page[0].pid);
    EXPECT_EQ(0U, page[0].is_fresh);
    // Who asked may be gone when the answer is there, and who is asked, too.
    request(asker, kListSubscriptions, words(0, 0));
    book_.closed(asker, now_);
    EXPECT_FALSE(book_.deadline_ms());
    const LinkId next = connect(21);
    for (int i = 0; i < 3; ++i) request(next, kListSubscriptions, words(0, 0));
    EXPECT_EQ(2U, sent_[next].size()) << "who asks again does not make answers pile up";
    book_.closed(link, now_);
    book_.closed(stopped, now_);
    EXPECT_TRUE(items<SubscriptionItem>(next).empty());
}

TEST_F(Books, CloseTheConnectionOfABadMessageAndNothingElse) {
    const LinkId good = subscriber(10);
    const auto ask = [](std::uint32_t call, const char* service, const Bytes& payload) {
        return test::message(wire::Kind::kRequest, call, service, payload);
    };
    const auto respond = [](std::uint32_t call, const char* service) {
        return test::message(wire::Kind::kResponse, call, service, words(0, 0));
    };
    Bytes truncated = ask(9, "KovaAppSubscribe", words(0, 11));
    truncated.pop_back();
    Bytes oversized = ask(9, "KovaAppSubscribe", words(0, 11));
    oversized.resize(wire::kMessageLimit + 1);
    const struct {
        const char* name;
        Bytes bytes;
    } cases[] = {
        {"empty", {}},
        {"truncated", truncated},
        {"oversized", oversized},
        {"unknown service", ask(9, "KovaNothing", {})},
        {"a service of processes", ask(9, "KovaGetSubscribe", words(0, 0, 20))},
        {"registers too short", ask(9, "AgentRegInfo", Bytes(43))},
        {"registers another process", ask(9, "AgentRegInfo", test::registration("routed", 10))},
        {"subscribes another process", ask(9, "KovaAppSubscribe", words(0, 10))},
        {"answers what nobody asked", respond(1, "KovaUpdateResourceInfo")},
        {"a number again", ask(2, "KovaRestCycleTime", words(1000, 0))},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const LinkId bad = subscriber(11);  // whose requests 1 and 2 are taken
        book_.received(bad, c.bytes, now_);
        EXPECT_TRUE(closed_.contains(bad));
        book_.received(bad, ask(99, "KovaAppSubscribe", words(0, 11)), now_);
        EXPECT_TRUE(sent_[bad].empty()) << "nobody is there any more";
    }
    const LinkId liar = subscriber(12);
    publish(33);
    answer(liar, "KovaGetSubscribe", test::subscribe_page(0, 1));
    EXPECT_TRUE(closed_.contains(liar)) << "the number of another service's request";
    EXPECT_FALSE(closed_.contains(good));
    EXPECT_EQ((std::vector<std::uint32_t>{33}), updates(good));
    ASSERT_EQ(1U, processes().size());
    EXPECT_EQ(10U, processes()[0].pid);
}

}  // namespace
}  // namespace kova::kovad
