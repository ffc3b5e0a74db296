#include <gtest/gtest.h>

#include <thread>

#include "kernel/obs/metric_registry.h"
#include "kernel/obs/metrics.h"
#include "kernel/obs/telemetry.h"

namespace ostrel::kernel {
namespace {

TEST(MetricRegistry, PrometheusTextOfGauges) {
  MetricRegistry m;
  EXPECT_EQ(m.to_prometheus(), "");
  m.gauge_set("q", 3);
  EXPECT_EQ(m.to_prometheus(), "# TYPE q gauge\nq 3\n");

  m.gauge_set("q", 0.5, {{"b", "1"}, {"a", "2"}});
  m.gauge_set("q", 1234567, {{"a", "1"}});
  m.gauge_set("q", 7, {{"a", "1"}});  // overwrites
  m.register_gauge("q", "queue depth");
  EXPECT_EQ(m.to_prometheus(),
            "# HELP q queue depth\n# TYPE q gauge\nq 3\nq{a=\"1\"} 7\nq{a=\"2\",b=\"1\"} 0.5\n");

  MetricRegistry e;
  e.gauge_set("big", 1234567);
  e.gauge_set("esc", 1, {{"v", "a\"b\\c\nd"}});
  std::string text = e.to_prometheus();
  EXPECT_NE(text.find("big 1.23457e+06\n"), std::string::npos);
  EXPECT_NE(text.find("esc{v=\"a\\\"b\\\\c\nd\"} 1\n"), std::string::npos);
}

TEST(ObsMetrics, HistogramBucketsAreCumulativeAndExpositionIsSorted) {
  obs::Histogram h({1, 5, 10, 25});
  h.observe(7);
  h.observe(20000);
  h.observe(1);  // a value equal to a bound belongs to that bucket
  obs::Histogram::Snapshot s = h.snapshot();
  EXPECT_EQ(s.cumulative, (std::vector<std::uint64_t>{1, 1, 2, 2}));
  EXPECT_EQ(s.count, 3u);
  EXPECT_DOUBLE_EQ(s.sum, 20008);

  auto& reg = obs::MetricsRegistry::instance();
  reg.counter("zz_test_counter", "last").add(2);
  reg.counter("aa_test_counter", "first").add(0.1);
  reg.gauge("test_gauge", "g").set(-1);
  auto& hist = reg.histogram("test_hist_ms", {1, 5, 10}, "h");
  hist.observe(7);
  EXPECT_EQ(&reg.counter("aa_test_counter"), &reg.counter("aa_test_counter"));

  std::string text = reg.to_prometheus();
  size_t a = text.find("# TYPE aa_test_counter counter\naa_test_counter 0.10000000000000001\n");
  size_t z = text.find("zz_test_counter 2\n");
  size_t g = text.find("# TYPE test_gauge gauge\ntest_gauge -1\n");
  size_t hh = text.find(
      "# HELP test_hist_ms h\n# TYPE test_hist_ms histogram\n"
      "test_hist_ms_bucket{le=\"1\"} 0\ntest_hist_ms_bucket{le=\"5\"} 0\n"
      "test_hist_ms_bucket{le=\"10\"} 1\ntest_hist_ms_bucket{le=\"+Inf\"} 1\n"
      "test_hist_ms_sum 7\ntest_hist_ms_count 1\n");
  ASSERT_NE(a, std::string::npos) << text;
  ASSERT_NE(z, std::string::npos);
  ASSERT_NE(g, std::string::npos);
  ASSERT_NE(hh, std::string::npos) << text;
  EXPECT_LT(a, z);   // counters sorted by name
  EXPECT_LT(z, g);   // then gauges
  EXPECT_LT(g, hh);  // then histograms
  EXPECT_EQ(obs::format_metric_value(1.0 / 0.0), "+Inf");
}

TEST(ObsMetrics, ConcurrentObservationsAreNotLost) {
  obs::Histogram h({10});
  obs::Counter c;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < 10000; ++j) {
        h.observe(j % 20);
        c.add(1);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(c.value(), 40000);
  auto s = h.snapshot();
  EXPECT_EQ(s.count, 40000u);
  EXPECT_EQ(s.cumulative[0], 4u * 5500);  // values 0..10 of every 20
}

TEST(Telemetry, LabelledSeriesAccumulatePerLabelSet) {
  auto& t = telemetry::Telemetry::instance();
  t.counter("ostrel.test.calls_total", 1, {{"a", "1"}});
  t.counter("ostrel.test.calls_total", 1, {{"a", "1"}});
  t.counter("ostrel.test.calls_total", 1, {{"a", "2"}});
  t.histogram("ostrel.test.latency_ms", 4, {{"op", "x"}});
  t.histogram("ostrel.test.latency_ms", 6, {{"op", "x"}});
  EXPECT_EQ(t.counter_value("ostrel.test.calls_total", {{"a", "1"}}), 2);
  EXPECT_EQ(t.counter_value("ostrel.test.calls_total", {{"a", "2"}}), 1);
  EXPECT_EQ(t.counter_value("ostrel.test.calls_total", {{"a", "3"}}), 0);

  std::string text = t.to_prometheus();
  EXPECT_NE(text.find("# TYPE ostrel_test_calls_total counter\n"
                      "ostrel_test_calls_total{a=\"1\"} 2\n"
                      "ostrel_test_calls_total{a=\"2\"} 1\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("ostrel_test_latency_ms_sum{op=\"x\"} 10\n"
                      "ostrel_test_latency_ms_count{op=\"x\"} 2\n"),
            std::string::npos);
}

}  // namespace
}  // namespace ostrel::kernel
