#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

/// Numbers for a monitoring system.
namespace orbamira::packctl {

/// Names and values that tell a number from others of its metric.
using Labels = std::vector<std::pair<std::string, std::string>>;

/// A number of a metric.
struct Sample {
  Labels labels = {};
  std::int64_t value = 0;
};

/// What is measured: a gauge of Prometheus.
struct Metric {
  std::string name;
  std::string help;  ///< a sentence without its end
  std::vector<Sample> samples = {};
};

/// The metrics in Prometheus' text format. One without samples is left out; bytes of a label that are not UTF-8, and
/// control characters, are written as Printable() does.
std::string Exposition(const std::vector<Metric>& metrics);

/// The same for programs: a list of {"name", "labels", "value"}.
Json::Value MetricsJson(const std::vector<Metric>& metrics);

}  // namespace orbamira::packctl
