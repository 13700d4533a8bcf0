#pragma once

#include <korvane_types.h>

#include <string>

#include "tool.h"

namespace korvane_tool {

/// How far an update came, as its reports tell.
struct UpdateState {
  int done = 0;           ///< Packets that the hand has acknowledged.
  int total = 0;          ///< Packets of the image.
  bool asked = false;     ///< The hand was asked for an update.
  bool accepted = false;  ///< It is ready for packets, so that its old firmware counts as gone.
  bool whole = false;     ///< It holds the whole image, or was asked whether it does.
  bool complete = false;
  int code = 0;  ///< Of the last FAILED; 0 if there was none.
};

/// Takes in one report.
void Take(UpdateState& state, int current, int total, talvera::korvane::OtaProgressStatus status);

/// In which state an update that ended there leaves the hand.
std::string StateOfHand(const UpdateState& state);

/// What to do after an update that failed.
std::string WhatToDo(const UpdateState& state, FailureKind kind);

}  // namespace korvane_tool
