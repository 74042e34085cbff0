#pragma once

// One turn of the progress circle's animation loop, apart from its thread and its sleep.

namespace kwq::views {

struct ProgressCircleStep {
  double counterValue;
  bool invert;
  /// The loop ends here (the counter reached the value outside continuous mode).
  bool finished;
};

/// Moves `counterValue` one step of `maximum` / 360 towards `value`, landing on it when less
/// than a step remains. At the value: finished, or in continuous mode a new sweep from 0 with
/// `invert` flipped.
ProgressCircleStep progressCircleStep(double value, double counterValue, double maximum,
                                      bool continuous, bool invert);

}  // namespace kwq::views
