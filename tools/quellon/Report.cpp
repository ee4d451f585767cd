#include "Report.h"

#include <iostream>
#include <map>
#include <utility>

namespace Quellon::Tool {

namespace Json = Tarvik::Json;

namespace {

constexpr std::size_t kColumn = 15;
constexpr char const* kPrefix = "quellon_";

// A bool is a number to Prometheus.
std::string Number(Json::Value const& value) {
  return value.IsBool() ? std::to_string(static_cast<int>(value.ToBool())) : Serialize(value);
}

// Bytes that are neither printable nor ASCII may be no text at all: a card's name is whatever its
// maker, or a fault, has put there.
std::string LabelValue(std::string const& text) {
  std::string value = "\"";
  for (char const c : text) {
    if (c == '"' || c == '\\') value += '\\';
    value += c >= ' ' && c <= '~' ? c : '?';
  }
  return value + '"';
}

std::string Metric(std::string const& name, std::string const& help, std::string const& labels,
                   std::string const& number) {
  std::string const full = kPrefix + name;
  return "# HELP " + full + " " + help + "\n# TYPE " + full + " gauge\n" + full + labels + " " +
         number + "\n";
}

}  // namespace

std::string Line(std::string const& label, std::string const& text) {
  std::string line = label;
  line.resize(std::max(kColumn, label.size() + 1), ' ');
  return line + text + "\n";
}

Status Print(Report const& report) {
  std::cout << report.ToText() << std::flush;
  return report.GetStatus();
}

void Report::Begin(std::string name) {
  subject = std::move(name);
}

void Report::Add(char const* key, char const* label, Json::Value value, std::string shown) {
  facts.push_back({subject, key, label, std::move(shown), std::move(value)});
}

void Report::Add(char const* key, char const* label, std::string const& text) {
  Add(key, label, text, text);
}

void Report::Tell(char const* label, std::string const& text) {
  Add("", label, Json::Value(), text);
}

void Report::Summarize(std::string text) {
  summaries.emplace_back(subject, std::move(text));
}

void Report::Complain(std::string what, std::string remedy) {
  problems.push_back({subject, std::move(what), std::move(remedy)});
}

void Report::Miss(std::string what) {
  unread.push_back(std::move(what));
}

std::string Report::ToText() const {
  std::string text;
  for (Fact const& fact : facts) text += Line(fact.label, fact.shown);
  return text + Verdict();
}

std::string Report::ToSummary() const {
  std::string text;
  for (auto const& [name, line] : summaries) text += Line(name, line);
  return text + Verdict();
}

std::string Report::Verdict() const {
  std::string text;
  for (std::string const& what : unread) text += Line("not read", what);
  for (Problem const& problem : problems) {
    text += Line("wrong", problem.what) + Line("to do", problem.remedy);
  }
  return text;
}

std::string Report::ToJson() const {
  std::map<std::string, Json::Object> subjects;
  for (Fact const& fact : facts) {
    if (!fact.key.empty()) subjects[fact.subject][fact.key] = fact.value;
  }
  Json::Object all;
  for (auto const& [name, members] : subjects) all[name] = members;
  Json::Array complaints;
  for (Problem const& problem : problems) {
    Json::Object complaint;
    complaint["subject"] = problem.subject;
    complaint["wrong"] = problem.what;
    complaint["to-do"] = problem.remedy;
    complaints.Add(complaint);
  }
  Json::Array missing;
  for (std::string const& what : unread) missing.Add(what);
  all["problems"] = complaints;
  all["unread"] = missing;
  return all.ToText() + "\n";
}

std::string Report::ToPrometheus() const {
  std::string text;
  std::map<std::string, std::string> information;
  for (Fact const& fact : facts) {
    if (fact.value.IsString()) {
      std::string& labels = information[fact.subject];
      labels += (labels.empty() ? "" : ",") + fact.key + "=" + LabelValue(fact.value.ToString());
    } else if (!fact.key.empty()) {
      text += Metric(fact.subject + "_" + fact.key, fact.subject + ": " + fact.label, "",
                     Number(fact.value));
    }
  }
  for (auto const& [name, labels] : information) {
    text += Metric(name + "_info", name + ": texts", "{" + labels + "}", "1");
  }
  return text +
         Metric("problems", "what is wrong with the device", "", std::to_string(problems.size())) +
         Metric("unread", "what could not be found out", "", std::to_string(unread.size()));
}

Status Report::GetStatus() const {
  if (!problems.empty()) return Wrong;
  return unread.empty() ? Fine : Unknown;
}

}  // namespace Quellon::Tool
