// The counter registry behind /metrics: text format and counting from many threads.
#include "comm/metrics.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using metrics::Kind;

TEST(Metrics, TextFormatAndConcurrentCounting) {
    metrics::Registry r;
    metrics::Family& hits = r.Get("t_total", "Hits\\by\nline.", Kind::Counter, {"path", "code"});
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 10000; ++i) hits.With({i % 2 ? "/b" : "/a\"\\\n", "200"}).Add();
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(&r.Get("t_total", "other", Kind::Gauge), &hits);
    r.Get("t_open", "Open.", Kind::Gauge).With().Set(-3);
    r.Get("t_none_total", "None yet.", Kind::Counter, {"x"});
    EXPECT_EQ(r.Render(),
              "# HELP t_total Hits\\\\by\\nline.\n# TYPE t_total counter\n"
              "t_total{path=\"/a\\\"\\\\\\n\",code=\"200\"} 20000\n"
              "t_total{path=\"/b\",code=\"200\"} 20000\n"
              "# HELP t_open Open.\n# TYPE t_open gauge\nt_open -3\n"
              "# HELP t_none_total None yet.\n# TYPE t_none_total counter\n");
}
