// How fast records go from one process to another: through orvane, through the queue under it, and
// through everything else that a user might take. Prints a line of JSON for each measurement.
#include <algorithm>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <utility>

#include "attempts.hpp"
#include "command_line.hpp"
#include "forms.hpp"

namespace bench {
namespace {

struct Setup {
  std::vector<std::size_t> sizes = {64, 1024, 16384, 131072};
  std::vector<std::string> works = {"headers", "bytes"};
  std::vector<std::string> forms;
  std::vector<std::string> geometries = {"8x1048968"};
  std::vector<std::string> pauses = {"50-5000"};
  std::vector<std::size_t> frames = {orvane::ring::Producer::kUsualFrame};
  std::vector<std::size_t> rings = {orvane::kDefaultRing};
  std::string fail;
  int failures = 1;
  int rounds = 5;
  double seconds = 0.2;
};

struct Case {
  const Form* form = nullptr;
  std::string geometry;
  std::string pauses;
  std::size_t frame = 0;
  std::size_t ring = 0;
  std::size_t size = 0;
  std::string work;
};

// Every combination of the settings.
std::vector<Case> allCases(const Setup& setup, const std::vector<Form>& forms) {
  std::vector<Case> cases(1);
  const auto vary = [&cases](const auto& settings, const auto& set) {
    std::vector<Case> more;
    for (const Case& one : cases) {
      for (const auto& setting : settings) {
        set(more.emplace_back(one), setting);
      }
    }
    cases = std::move(more);
  };
  vary(forms, [](Case& one, const Form& form) { one.form = &form; });
  vary(setup.geometries, [](Case& one, const std::string& name) { one.geometry = name; });
  vary(setup.pauses, [](Case& one, const std::string& name) { one.pauses = name; });
  vary(setup.frames, [](Case& one, std::size_t bytes) { one.frame = bytes; });
  vary(setup.rings, [](Case& one, std::size_t bytes) { one.ring = bytes; });
  vary(setup.sizes, [](Case& one, std::size_t bytes) { one.size = bytes; });
  vary(setup.works, [](Case& one, const std::string& name) { one.work = name; });
  return cases;
}

std::string fieldsOf(const Case& one) {
  return field("form", one.form->name) + "," + field("geometry", one.geometry) + "," +
         field("pauses", one.pauses) + "," + field("frame", one.frame) + "," +
         field("ring", one.ring) + "," + field("size", one.size) + "," + field("work", one.work);
}

void run(const Case& one, int round, Clock::duration time) {
  Geometry geometry = geometryNamed(one.geometry);
  geometry.pauses = pausesNamed(one.pauses);
  geometry.frame = one.frame;
  geometry.ring = one.ring;
  const Work work = one.work == "bytes" ? Work::bytes : Work::headers;
  const auto speed = measure(*one.form, geometry, Load(one.size), work, time);
  if (!speed) {
    return;
  }
  std::printf(R"({"question":"stream",%s,"round":%d,"bytes_per_second":%.0f,"cpu_per_gb":%.4f})"
              "\n",
              fieldsOf(one).c_str(), round, speed->bytesPerSecond, speed->cpuPerGb);
  std::fflush(stdout);
}

// The same form, but its producer fails so many times before it works.
Form failing(Form form, int times) {
  const auto left = std::make_shared<int>(times);
  form.make = [make = form.make, left](const Geometry& geometry, std::size_t capacity) {
    --*left;
    return make(geometry, capacity);
  };
  form.produce = [produce = form.produce, left](Link& link, const Load& load, std::size_t capacity,
                                                Clock::duration time) {
    if (*left >= 0) {
      throw std::runtime_error("the producer fails, as --fail asks");
    }
    return produce(link, load, capacity, time);
  };
  return form;
}

// Of all forms, or of those that were asked for.
std::vector<Form> chosenForms(const Setup& setup) {
  const std::vector<std::string>& names = setup.forms;
  std::vector<Form> chosen;
  for (const Form& form : allForms()) {
    if (!names.empty() && std::find(names.begin(), names.end(), form.name) == names.end()) {
      continue;
    }
    if (!form.missing.empty()) {
      std::fprintf(stderr, "left out: %s (%s)\n", form.name.c_str(), form.missing.c_str());
      continue;
    }
    chosen.push_back(form.name == setup.fail ? failing(form, setup.failures) : form);
  }
  return chosen;
}

// In each round in another order, so that nobody always follows the same one.
void runAll(const Setup& setup) {
  const auto time =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(setup.seconds));
  const std::vector<Form> forms = chosenForms(setup);
  std::vector<Case> cases = allCases(setup, forms);
  Attempts attempts("stream");
  std::mt19937 random;
  for (int round = 0; round < setup.rounds; ++round) {
    std::shuffle(cases.begin(), cases.end(), random);
    for (const Case& one : cases) {
      attempts.measure(fieldsOf(one), round, [&] { run(one, round, time); });
    }
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  bench::Setup setup;
  bench::CommandLine line("bench_stream",
                          "Measures how fast records go from one process to another.");
  line.add("--size", setup.sizes, "Data bytes of a record");
  line.addChoices("--work", setup.works, {"headers", "bytes"},
                  "What the consumer does: headers decodes, bytes also sums");
  line.add("--form", setup.forms, "Which forms; all without it");
  line.add("--geometry", setup.geometries, "MESSAGESxBYTES of orvane's queue");
  line.add("--pause", setup.pauses, "SHORTEST-LONGEST pause of a polling reader, in us");
  line.add("--frame", setup.frames, "Bytes at which a ring's writer hands a frame over");
  line.add("--ring", setup.rings, "Bytes of a ring");
  line.add("--fail", setup.fail, "Form whose producer fails, to try what happens then");
  line.add("--failures", setup.failures, "How many times it fails before it works");
  line.add("--rounds", setup.rounds, "How often everything is measured, in turn");
  line.add("--seconds", setup.seconds, "How long each time");
  return line.run(argc, argv, [&] { bench::runAll(setup); });
}
