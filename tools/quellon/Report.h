// What was found out about the device, in the forms that people and programs read.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "Command.h"
#include "base/Json.h"

namespace Quellon::Tool {

/// Facts and problems of subjects such as "card", in the order in which they were found.
class Report {
 public:
  /// What is added from now on is of that subject.
  void Begin(std::string subject);

  /// A fact: `key` names it for programs, `label` for people, who read `shown`. A number or a bool
  /// becomes a metric; a text becomes a label of the metric "info" of its subject.
  void Add(char const* key, char const* label, Tarvik::Json::Value value, std::string shown);
  /// A fact that is a text in all forms.
  void Add(char const* key, char const* label, std::string const& text);
  /// A fact that people alone need.
  void Tell(char const* label, std::string const& text);

  /// The subject in a line, for who asked for the health of all.
  void Summarize(std::string text);
  /// Something is wrong, and what to do about it.
  void Complain(std::string what, std::string remedy);
  /// Something could not be read.
  void Miss(std::string what);

  /// The facts, one a line, and what is wrong.
  [[nodiscard]] std::string ToText() const;
  /// A line for each subject, and what is wrong.
  [[nodiscard]] std::string ToSummary() const;
  /// One line of JSON: an object of facts for each subject, and two arrays, "problems" and
  /// "unread".
  [[nodiscard]] std::string ToJson() const;
  /// The text format of Prometheus.
  [[nodiscard]] std::string ToPrometheus() const;

  [[nodiscard]] Status GetStatus() const;

 private:
  struct Fact {
    std::string subject, key, label, shown;
    Tarvik::Json::Value value;
  };
  struct Problem {
    std::string subject, what, remedy;
  };

  [[nodiscard]] std::string Verdict() const;

  std::string subject;
  std::vector<Fact> facts;
  std::vector<std::pair<std::string, std::string>> summaries;
  std::vector<Problem> problems;
  std::vector<std::string> unread;
};

/// A line for people: a label, and what follows it in a column of its own.
std::string Line(std::string const& label, std::string const& text);

/// Prints a report for people and returns its status.
Status Print(Report const& report);

// The subjects. Each adds what it finds out, and changes nothing.
void LookAtCard(Report& report, bool isRead);  ///< whether one that is not mounted is read
/// Gives up when it takes longer than `limit`.
void LookAtCatalogue(Report& report, std::string const& directory, std::chrono::seconds limit);
void LookAtWatchdog(Report& report);
void LookAtClock(Report& report);
void LookAtCounter(Report& report);

}  // namespace Quellon::Tool
