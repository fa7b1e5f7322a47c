#include "http/moving_average.h"

#include <cstdlib>

namespace webs {

MovingAverage::MovingAverage(unsigned int cap) : capacity(cap) {}

long long MovingAverage::push(long long sample) {
  if (count >= capacity && count > 0) {
    lastRemoved = samples.front();
    samples.pop_front();
    --count;
  }
  samples.push_back(sample);
  ++count;

  double alpha = 0.5;
  long long smallest = samples.front();
  long long largest = samples.front();
  long long path = std::llabs(samples.front() - lastRemoved);
  long long previous = samples.front();
  bool first = true;
  for (long long value : samples) {
    if (value < smallest) smallest = value;
    if (value > largest) largest = value;
    if (!first) path += std::llabs(value - previous);
    previous = value;
    first = false;
  }
  if (path != 0) {
    alpha = static_cast<double>(largest - smallest) / static_cast<double>(path) * 0.33;
  }
  average = static_cast<long long>(alpha * static_cast<double>(average) +
                                   (1.0 - alpha) * static_cast<double>(sample));
  return average;
}

}  // namespace webs
