// The services that the daemon calls: publishing, and paging through the subscriptions.
#include "kova/subscription_services.h"

#include "registry_fixture.h"

namespace kova::test {
namespace {

class ServicesTest : public RegistryTest {
  protected:
    ~ServicesTest() override { KovaFreeQuerySubscribe(&g_kovaQuerySubscribe); }

    static void join_many(std::uint32_t count) {
        for (std::uint32_t i = 0; i < count; ++i) join(request("m" + std::to_string(i), 20 + i % 50, 10));
    }

    struct Page {
        std::uint32_t rc = 0, result = 0, count = 0;
        std::vector<SubscribeInfo> items;
    };
    static Page ask(std::uint32_t start, std::uint32_t most) {
        const GetSubscribeIn in = {.reserved = 99, .start = start, .queryNum = most};
        GetSubscribeOut* out = nullptr;
        Page page;
        page.rc = KovaGetSubscribe(&in, &out);
        page.result = out->result;
        page.count = out->count;
        if (out->items != nullptr) page.items.assign(out->items, out->items + most);
        KovaGetSubscribe_free(out);
        return page;
    }
};

TEST_F(ServicesTest, PagesCoverOneListAndTheShortOneReleasesIt) {
    const struct {
        const char* name;
        std::uint32_t subscriptions, most;
        std::vector<std::uint32_t> counts;  // of the pages at 0, most, 2 * most, ...
    } cases[] = {
        {"the last page is short", 7, 3, {3, 3, 1}},
        {"the last page is full", 6, 3, {3, 3, 0}},
        {"the most that a list holds", 1000, 20, std::vector<std::uint32_t>(50, 20)},
        {"nobody has subscribed", 0, 20, {0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        join_many(c.subscriptions);
        std::set<std::string> modules;
        for (std::uint32_t i = 0; i < c.counts.size(); ++i) {
            const Page page = ask(i * c.most, c.most);
            if (i == 0) join(request("latecomer", 99, 10));  // is not in this list
            EXPECT_EQ(0U, page.rc + page.result);
            EXPECT_EQ(c.counts[i], page.count);
            for (std::uint32_t item = 0; item < page.count; ++item) {
                modules.insert(page.items[item].moduleName);
                EXPECT_STREQ("dataPlaneCpu", page.items[item].subType);
                EXPECT_EQ(10U, page.items[item].recover);
            }
            const bool is_kept = page.count == c.most;
            EXPECT_EQ(is_kept ? c.subscriptions : 0, g_kovaQuerySubscribe.count);
            EXPECT_EQ(is_kept, g_kovaQuerySubscribe.records != nullptr);
            if (is_kept) continue;
            EXPECT_EQ('\0', page.items[page.count].subType[0]) << "left unfilled, yet not zero";
        }
        EXPECT_EQ(c.subscriptions, modules.size());
        EXPECT_FALSE(modules.contains("latecomer"));
        KOVA_Delete_Publisher(std::exchange(g_KovaPublisherAgent, nullptr));
    }
    EXPECT_EQ(0U, ask(5, 20).count) << "no list";

    join_many(4);
    EXPECT_EQ(0U, ask(0, 0).count);
    EXPECT_EQ(4U, g_kovaQuerySubscribe.count) << "a page of none keeps the list";
    EXPECT_EQ(0U, ask(0xFFFFFFFE, 20).count);  // start + index must not wrap into the list
    EXPECT_EQ(nullptr, g_kovaQuerySubscribe.records);
}

// The list is counted first, and copied when there is memory for it.
TEST_F(ServicesTest, ListThatChangesMeanwhileIsNotOverrun) {
    const auto page_when = [](std::function<bool()> allocate) {
        g_fakes.on_allocation = std::move(allocate);
        const Page page = ask(0, 20);
        EXPECT_EQ(page.rc, page.result);
        return page.rc == 0 ? std::to_string(page.count) : "failed";
    };
    join_many(4);
    EXPECT_EQ("failed", page_when([] { return false; }));
    EXPECT_EQ("failed", page_when([] { return join(request("grown")), true; }));
    EXPECT_EQ(nullptr, g_kovaQuerySubscribe.records);
    EXPECT_EQ("4", page_when([] { return KOVA_Delete_Subscriber(publisher()->subscribers), true; }));
}

TEST_F(ServicesTest, UpdateReachesItsTypeAlone) {
    const auto update = [](std::uint32_t type, std::uint32_t value) {
        const UpdateResourceInfoIn in = {.subType = type, .value = value};
        UpdateResourceInfoOut* out = nullptr;
        EXPECT_EQ(0U, KovaUpdateResourceInfo(&in, &out));
        EXPECT_EQ(0U, out->result);
        KovaUpdateResourceInfo_free(out);
    };
    update(0, 90);
    Events heard;
    join(request("a", 80, 60, keep_event, &heard));
    join(request("b", 95, 60, keep_event, &heard));
    SubscribeRequest other = request("c", 80, 60, keep_event, &heard);
    other.subType = 1;
    join(other);
    update(0, 90);
    update(2, 90);
    const UpdateResourceInfoIn recovered = {.subType = 0, .value = 60};
    EXPECT_EQ(0U, KovaPublishEvent(&recovered));
    UpdateResourceInfoOut* out = nullptr;
    EXPECT_EQ(1U, KovaUpdateResourceInfo(nullptr, &out));
    g_fakes.has_reply_memory = false;
    EXPECT_EQ(12U, KovaUpdateResourceInfo(&recovered, &out));
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ((Events{{"b", 0}, {"a", 1}, {"b", 0}, {"a", 0}}), heard) << "newest first";
}

TEST_F(ServicesTest, AThreadThatIsCancelledInAHookLetsTheRegistryGo) {
    join(request("a", 80, 60, [](const SubscribeEvent*, void*) {
        ::pthread_cancel(::pthread_self());
        ::pthread_testcancel();
        return 0U;
    }));
    const auto publish = [](void*) -> void* {
        const UpdateResourceInfoIn value = {.subType = 0, .value = 90};
        KovaPublishEvent(&value);
        ::pthread_testcancel();
        return nullptr;
    };
    pthread_t thread{};
    ASSERT_EQ(0, ::pthread_create(&thread, nullptr, publish, nullptr));
    void* result = nullptr;
    EXPECT_EQ(0, ::pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
}

}  // namespace
}  // namespace kova::test
