#pragma once

#include <QByteArray>
#include <QString>
#include <exception>

namespace MRL::Utils {

// The one failure type of the program: a user-facing text and a severity (2 throughout).
class Exception : public std::exception
{
public:
    explicit Exception(const QString& message, int severity = 2);

    const char* what() const noexcept override { return utf8_.constData(); }
    QString message() const { return message_; }
    int severity() const { return severity_; }

private:
    QString message_;
    QByteArray utf8_;
    int severity_;
};

} // namespace MRL::Utils
