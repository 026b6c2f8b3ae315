// The fuzz targets on their committed corpora: what they once found stays mended.
#include "fuzz/targets.h"
#include "harness/source_tree.h"

#include <gtest/gtest.h>

namespace fixture {

namespace {

class FuzzCorpus : public testing::TestWithParam<FuzzTarget> {};

TEST_P(FuzzCorpus, FindsNothing) {
    unsigned files = 0;
    for (const auto &file : std::filesystem::directory_iterator(SourceFile("fuzz/corpus") / GetParam().name)) {
        const Bytes input = ReadFile(file.path(), 1 << 20);
        EXPECT_NO_THROW(GetParam().run(input)) << file.path();
        ++files;
    }
    EXPECT_GT(files, 0u);
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzCorpus, testing::ValuesIn(FuzzTargets().begin(), FuzzTargets().end()),
                         [](const auto &target) {
                             std::string name = target.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

} // namespace

} // namespace fixture
