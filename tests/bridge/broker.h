// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QMap>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

/// An authority of the test's own, and the certificates that it gives out: files in PEM that go
/// with it. Made by openssl.
class Authority
{
public:
    struct Papers {
        QString certificate;
        QString key;
    };

    Authority();

    QString certificate() const { return path(QStringLiteral("authority.crt")); }

    /// For whoever has this name or, if it is a number, this IPv4 address. The names of the files
    /// begin with it.
    Papers issue(const QString& name) const;

private:
    QString path(const QString& file) const { return directory.filePath(file); }

    QTemporaryDir directory;
};

/// A mosquitto of the test's own: a process that ends with the test. start waits until it serves.
class Broker
{
public:
    struct Setup {
        QString address = QStringLiteral("127.0.0.1");
        const Authority* authority = nullptr; ///< TLS, with certificates of its own for both sides
        QMap<QString, QString> passwords;     ///< by user; if there are some, nobody else comes in
        QByteArray access;   ///< an ACL file; if empty, everybody may do everything
        bool keeps = false;  ///< sessions and messages outlive it, even killed
        QByteArray more;     ///< further lines of its configuration
        QStringList command; ///< what starts it, for instance on another machine
    };

    Broker() : Broker(Setup()) {}
    explicit Broker(const Setup& setup);
    ~Broker() { kill(); }
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    /// Starts it, again after kill and with the same port and directory. False if it does not
    /// serve.
    bool start();

    void kill(); ///< as a power failure would
    void stop(); ///< as the system does

    QString address() const { return setup.address; }
    quint16 port() const { return localPort; }
    qint64 id() const { return process.processId(); }
    QString log() const; ///< what it has said since it was started

private:
    QString path(const QString& file) const { return directory.filePath(file); }
    void write(const QString& file, const QByteArray& text) const;
    QByteArray configuration() const;
    void end(int signal);

    const Setup setup;
    QTemporaryDir directory;
    QProcess process;
    quint16 localPort = 0;
};
