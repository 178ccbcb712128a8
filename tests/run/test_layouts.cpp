// The same run with 1, 2, 3 and 4 threads: every output the same to the
// byte (the sums over the data too), the log and the screen but for their
// times and thread count.
#include <gtest/gtest.h>

#include "support/layout_runs.hpp"

TEST(Layouts, EveryOutputTheSameForAnyThreadCount) {
  for (const auto& k : qt::layout_surveys()) {
    std::map<std::string, std::string> first;
    for (int threads : {1, 2, 3, 4}) {
      qt::scratch_dir d("qlayout");
      qt::write_layout_survey(d, k);
      const auto r = qt::run_program(d.path.string(), {"run.inp", std::to_string(threads)});
      ASSERT_EQ(r.status, 0) << k.name << "\n" << r.screen << r.errors;
      const auto outputs = qt::layout_outputs(d, r.screen);
      ASSERT_TRUE(outputs.count("dulmarok.mtx")) << k.name;
      if (threads == 1) {
        first = outputs;
        continue;
      }
      ASSERT_EQ(outputs.size(), first.size()) << k.name << ", threads " << threads;
      for (const auto& [name, bytes] : first)
        EXPECT_TRUE(outputs.at(name) == bytes) << k.name << ", threads " << threads << ": " << name;
    }
  }
}
