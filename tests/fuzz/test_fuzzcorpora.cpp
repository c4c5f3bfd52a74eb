// SPDX-License-Identifier: MIT
// Each fuzz target over its corpus, without a fuzzer. What a target finds ends the process.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <cstddef>
#include <cstdint>

extern "C" {
int fuzz_blockjoin(const std::uint8_t* data, std::size_t size);
int fuzz_capture(const std::uint8_t* data, std::size_t size);
int fuzz_commandframe(const std::uint8_t* data, std::size_t size);
int fuzz_commandlist(const std::uint8_t* data, std::size_t size);
int fuzz_linkaddress(const std::uint8_t* data, std::size_t size);
int fuzz_luatables(const std::uint8_t* data, std::size_t size);
int fuzz_udpreceive(const std::uint8_t* data, std::size_t size);
}

namespace
{

struct Target {
    const char* name;
    int (*run)(const std::uint8_t*, std::size_t);
};

void PrintTo(const Target& target, std::ostream* out)
{
    *out << target.name;
}

} // namespace

class FuzzCorpus : public ::testing::TestWithParam<Target>
{
};

TEST_P(FuzzCorpus, NothingIsFound)
{
    const QDir corpus(QStringLiteral(FUZZ_CORPUS) + '/' + GetParam().name);
    const QStringList names = corpus.entryList(QDir::Files);
    ASSERT_FALSE(names.isEmpty());
    for (const QString& name : names) {
        QFile file(corpus.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        std::printf("%s\n", qPrintable(name));
        std::fflush(stdout);
        GetParam().run(reinterpret_cast<const std::uint8_t*>(bytes.constData()),
                       static_cast<std::size_t>(bytes.size()));
    }
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzCorpus,
                         ::testing::Values(Target{"fuzz_blockjoin", fuzz_blockjoin},
                                           Target{"fuzz_capture", fuzz_capture},
                                           Target{"fuzz_commandframe", fuzz_commandframe},
                                           Target{"fuzz_commandlist", fuzz_commandlist},
                                           Target{"fuzz_linkaddress", fuzz_linkaddress},
                                           Target{"fuzz_luatables", fuzz_luatables},
                                           Target{"fuzz_udpreceive", fuzz_udpreceive}),
                         [](const auto& target) { return std::string(target.param.name); });
