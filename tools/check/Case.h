// What the checker is made of: cases, which are rows of tables, and what became of each.
//
// A case talks to the service as a client would, or as no good client would, and judges what comes back:
//
//   PASS  as expected
//   NOTE  not what the reference service does, but lawful; counts as a failure with --strict
//   FAIL  an application, or another client, would suffer from it
//   SKIP  could not be tried here, and why
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tools/client/Target.h"

namespace check {

enum class Verdict { PASS, NOTE, FAIL, SKIP };

/// What the user chose, and what was found out at the start.
struct Settings {
  client::Target target;
  int64_t answerWithinMs = 2000;  // how long the service may take for anything
  int64_t quietMs = 300;          // how long to listen for what must not come
  int64_t pushWithinMs = 1500;    // how long to wait for pushes
  int clients = 32;               // how many at once
  int attempts = 3;               // over UDP, where datagrams get lost: until a case fails for good
  bool destructive = false;
  std::set<uint16_t> silent;  // requests that the service does not answer; found out by survey()
};

class Check;

/// Where a case makes sense, and whether it may do harm.
enum CaseFlags : unsigned { LOCAL = 1, UDP = 2, BOTH = LOCAL | UDP, DESTRUCTIVE = 4 };

struct Case {
  const char* name;  // "group.what-holds"
  unsigned flags;
  const char* sends;
  const char* expects;
  void (*run)(Check& check);
};

/// What became of a case.
struct Result {
  int number = 0;  // in allCases(), from 1
  const Case* which = nullptr;
  Verdict verdict = Verdict::PASS;
  std::string sent;  // the case's, or where exactly in it something went wrong
  std::string came;
  std::vector<std::string> notes;  // lawful, but worth knowing
  int64_t tookMs = 0;
};

/// All cases; their numbers are their places here, and stay: new ones go to the end of their table's group of
/// tables. See Tables.cpp.
const std::vector<Case>& allCases();

/// "pass", "note", "FAIL", "skip".
const char* verdictWord(Verdict verdict);

}  // namespace check
