#pragma once

#include <QVector>

#include <time.h>

/// Monotonic time in nanoseconds.
inline qint64 benchNowNs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<qint64>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

double medianOf(QVector<double> values);
double maxOf(const QVector<double>& values);

// The engine's worker is a plain pthread; the bench links with
// --wrap=pthread_create so that the end of each such thread is timed exactly.
int benchWorkersStarted();
int benchWorkersEnded();
qint64 benchLastWorkerEndNs();
