// BrivetModel::WalkBudget: the steps one miss collection of the legacy model may still take (internal to the
// legacy model). A step budget under the name the model's private walk functions take, so that the model's
// public header need not show the budget's type. Belongs to one walk on one thread.
#pragma once

#include "brivet/legacy/model.h"
#include "brivet/platform/internal/step_budget.h"

namespace brivet {

struct BrivetModel::WalkBudget : internal::StepBudget {
  using internal::StepBudget::StepBudget;
};

}  // namespace brivet
