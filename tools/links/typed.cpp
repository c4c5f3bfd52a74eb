// SPDX-License-Identifier: MIT
#include "typed.h"

#include "toolerror.h"

#include <QFile>
#include <QRegularExpression>

#include <unistd.h>

namespace
{

QString lengthExpected(int limit)
{
    return QString("0 to %1 bytes").arg(limit);
}

} // namespace

qint64 typed::number(const QString& option, const QString& text, qint64 least, qint64 most)
{
    static const QRegularExpression form(
        QRegularExpression::anchoredPattern("(0[xX])?([0-9a-fA-F]+)"));
    const auto match = form.match(text);
    bool valid = false;
    const qint64 value =
        match.captured(2).toLongLong(&valid, match.captured(1).isEmpty() ? 10 : 16);
    if (!valid || value < least || value > most) {
        throw BadInput(option, text, QString("%1 to %2").arg(least).arg(most));
    }
    return value;
}

QByteArray typed::bytes(const QString& option, const QString& text, int limit)
{
    if (text.startsWith('@')) {
        return file(option, text.mid(1), limit);
    }
    static const QRegularExpression blanks("[\\s:]+");
    static const QRegularExpression hexadecimal(
        QRegularExpression::anchoredPattern("[0-9a-fA-F]+"));
    constexpr int shownDigits = 40;
    const QString digits = QString(text).remove(blanks);
    if (digits.size() % 2 != 0 || !hexadecimal.match(digits).hasMatch()) {
        throw BadInput(option, text.left(shownDigits),
                       "hexadecimal digits in pairs, like 00ff10, or @FILE");
    }
    QByteArray bytes = QByteArray::fromHex(digits.toLatin1());
    if (bytes.size() > limit) {
        throw BadInput(option, QString("%1...").arg(text.left(shownDigits)), lengthExpected(limit));
    }
    return bytes;
}

QByteArray typed::file(const QString& option, const QString& path, int limit)
{
    const auto refuse = [&](const QString& reason) {
        throw BadInput(option, path, "a readable file: " + reason);
    };
    if (path.isEmpty()) {
        refuse("no name");
    }
    QFile file(path);
    // By its descriptor: as a stream it would be switched to not waiting, for whoever shares it.
    const bool opened =
        path == "-" ? file.open(STDIN_FILENO, QIODevice::ReadOnly) : file.open(QIODevice::ReadOnly);
    if (!opened) {
        refuse(file.errorString());
    }
    QByteArray content;
    QByteArray piece;
    do { // a pipe gives what is there, and only nothing is its end
        piece = file.read(limit + 1 - content.size());
        content += piece;
    } while (!piece.isEmpty() && content.size() <= limit);
    if (file.error() != QFileDevice::NoError) {
        refuse(file.errorString());
    }
    if (content.size() > limit) {
        throw BadInput(option, path, lengthExpected(limit));
    }
    return content;
}
