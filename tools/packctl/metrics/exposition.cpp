#include "tools/packctl/metrics/exposition.h"

#include "platform/printable.h"

namespace orbamira::packctl {
namespace {

std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : Printable(text)) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
    }
    quoted += c;
  }
  return quoted + '"';
}

std::string Line(const std::string& name, const Sample& sample) {
  std::string labels;
  for (const auto& [label, value] : sample.labels) {
    labels += (labels.empty() ? "" : ",") + label + "=" + Quoted(value);
  }
  return name + (labels.empty() ? "" : "{" + labels + "}") + " " + std::to_string(sample.value) + "\n";
}

}  // namespace

std::string Exposition(const std::vector<Metric>& metrics) {
  std::string text;
  for (const Metric& metric : metrics) {
    if (metric.samples.empty()) {
      continue;
    }
    text += "# HELP " + metric.name + " " + metric.help + ".\n# TYPE " + metric.name + " gauge\n";
    for (const Sample& sample : metric.samples) {
      text += Line(metric.name, sample);
    }
  }
  return text;
}

Json::Value MetricsJson(const std::vector<Metric>& metrics) {
  Json::Value json = Json::arrayValue;
  for (const Metric& metric : metrics) {
    for (const Sample& sample : metric.samples) {
      Json::Value& entry = json.append(Json::objectValue);
      entry["name"] = metric.name;
      entry["labels"] = Json::objectValue;
      for (const auto& [label, value] : sample.labels) {
        entry["labels"][label] = value;
      }
      entry["value"] = Json::Int64{sample.value};
    }
  }
  return json;
}

}  // namespace orbamira::packctl
