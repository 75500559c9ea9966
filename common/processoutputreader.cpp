#include "processoutputreader.h"

#include <QDebug>
#include <QProcess>

ProcessOutputReader::ProcessOutputReader(QProcess *process)
    : m_process(process)
{
    connect(m_process, &QProcess::readyReadStandardOutput, this, &ProcessOutputReader::readOutput);
}

int ProcessOutputReader::loop()
{
    connect(m_process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            [this](int code) { quitLoop(code); });
    m_loop.exec();
    qDebug().nospace() << "Finish with return code: " << m_exitCode;
    return m_exitCode;
}

void ProcessOutputReader::readOutput()
{
    qDebug() << m_process->readAllStandardOutput();
}

void ProcessOutputReader::quitLoop(int code)
{
    m_exitCode = code;
    m_loop.quit();
}
