#pragma once

#include <span>
#include <string>

namespace bench {

// A socket at which one lease is given, as a server does.
class LeaseGiver {
 public:
  LeaseGiver();
  ~LeaseGiver();
  LeaseGiver(const LeaseGiver&) = delete;
  LeaseGiver& operator=(const LeaseGiver&) = delete;

  const std::string& socket() const { return path; }

  // Answers the next request with this packet and these files, of which there are two or none.
  void give(std::string packet, std::span<const int> files = {});

  void endLease() const;

 private:
  const std::string path;
  int listening;
  int connection = -1;
};

}  // namespace bench
