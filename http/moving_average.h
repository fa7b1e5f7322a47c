// webs::MovingAverage: adaptive exponential smoothing of speed samples.
//
// Keeps the last `capacity` samples; each push smooths the new sample into
// the running average with a weight that grows with how much the recent
// samples swing (spread over path length), so a steady series follows fast
// and a jumpy one is damped. Owned by webs::MethodRequest and pushed only on
// the transfer's thread; not thread-safe on its own.
#ifndef CORVANE_HTTP_MOVING_AVERAGE_H_
#define CORVANE_HTTP_MOVING_AVERAGE_H_

#include <list>

namespace webs {

class MovingAverage {
 public:
  explicit MovingAverage(unsigned int capacity);

  // Adds `sample` (dropping the oldest when full) and returns the new average.
  long long push(long long sample);

 private:
  std::list<long long> samples;  // oldest first
  unsigned long count = 0;
  long long lastRemoved = 0;
  unsigned int capacity;
  long long average = 0;
};

}  // namespace webs

#endif  // CORVANE_HTTP_MOVING_AVERAGE_H_
