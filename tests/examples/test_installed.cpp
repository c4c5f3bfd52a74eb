// SPDX-License-Identifier: MIT
#include "exampledevice.h"

#include <QDir>
#include <QFile>
#include <QProcess>

namespace
{

/// The examples as someone has them who installed the library: built in a copy of their directory.
class InstalledExamples : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(execute("cmake", {"--install", LIBRARY_BUILD, "--prefix", prefix()}));
        ASSERT_TRUE(execute("cp", {"-r", EXAMPLES_SOURCE, directory.filePath("examples")}));
        qputenv("PKG_CONFIG_PATH", (libraries() + "/pkgconfig").toLocal8Bit());
        qputenv("LD_LIBRARY_PATH", libraries().toLocal8Bit());
    }

    QString prefix() const { return directory.filePath("prefix"); }
    QString libraries() const { return prefix() + "/" LIBDIR; }

    static bool execute(const char* program, const QStringList& arguments)
    {
        return QProcess::execute(program, arguments) == 0;
    }

    void build(const QString& project)
    {
        const QString binaries = directory.filePath("build");
        ASSERT_TRUE(execute("cmake", {"-S", directory.filePath(project), "-B", binaries, "-G",
                                      "Ninja", "-DCMAKE_PREFIX_PATH=" + prefix()}));
        ASSERT_TRUE(execute("cmake", {"--build", binaries}));
    }

    // The commands that examples/README.md gives behind this line.
    QString commandsBehind(const QString& line) const
    {
        QFile page(directory.filePath("examples/README.md"));
        EXPECT_TRUE(page.open(QIODevice::ReadOnly));
        QString block =
            QString::fromUtf8(page.readAll()).section(line + "\n\n", 1).section("\n\n", 0, 0);
        EXPECT_TRUE(block.startsWith("    ")) << line.toStdString();
        return block;
    }

    QString expectReply(const QString& program)
    {
        const ExampleDevice device("udp://127.0.0.1:0");
        const ToolRun host({"127.0.0.1", device.port()}, {}, {directory.filePath(program)});
        EXPECT_EQ(host.code, 0) << host.error.toStdString();
        EXPECT_TRUE(host.output.startsWith("127.0.0.1 replied")) << host.output.toStdString();
        return host.error;
    }

    // Its log is the system's, with a copy on standard error.
    void expectOwnHost(const QString& program)
    {
        const QString log = expectReply(program);
        EXPECT_TRUE(log.contains("Send successful:<T0000100000000010>")) << log.toStdString();
    }

    QTemporaryDir directory;
};

TEST_F(InstalledExamples, AreAProjectOfTheirOwn)
{
    build("examples");
    for (const char* const name : {"ask", "osd", "secondserial", "sendfile", "serial", "usb"}) {
        EXPECT_TRUE(QFile::exists(directory.filePath("build/") + name)) << name;
    }
    expectReply("build/udp");
}

TEST_F(InstalledExamples, HaveAHostOfTheirOwn)
{
    build("examples/ownhost");
    expectOwnHost("build/ownhost");
}

TEST_F(InstalledExamples, AreBuiltWithPkgConfig)
{
    ASSERT_TRUE(QDir::setCurrent(directory.filePath("examples")));
    ASSERT_TRUE(execute("sh", {"-exc", commandsBehind("Without CMake, in this directory:")}));
    expectReply("examples/udp");
    expectOwnHost("examples/ownhost/ownhost");
}

} // namespace
