#pragma once

#include <QEventLoop>
#include <QObject>

class QProcess;

// Waits in a nested event loop until a child process ends, echoing its output.
class ProcessOutputReader : public QObject
{
    Q_OBJECT

public:
    explicit ProcessOutputReader(QProcess *process);
    int loop();

public Q_SLOTS:
    void readOutput();
    void quitLoop(int code);

private:
    QProcess *m_process;
    QEventLoop m_loop;
    int m_exitCode = 0;
};
