#include "signalwatcher.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

volatile std::sig_atomic_t writeEnd = -1;

const int WatchedSignals[] = { SIGINT, SIGTERM };

extern "C" void handleSignal(int signalNumber)
{
    // write() is async-signal-safe; errno belongs to the code interrupted.
    const int savedErrno = errno;
    const unsigned char byte = static_cast<unsigned char>(signalNumber);
    if (writeEnd >= 0)
        (void)!::write(writeEnd, &byte, 1);
    errno = savedErrno;
}

void installHandler(int signalNumber, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(signalNumber, &action, nullptr);
}

} // namespace

SignalWatcher::SignalWatcher(QObject* parent)
    : QObject(parent)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) != 0) {
        pair[0] = pair[1] = -1;
        return;
    }
    notifier = new QSocketNotifier(pair[1], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &SignalWatcher::slotSignalArrived);
    writeEnd = pair[0];
    for (int signalNumber : WatchedSignals)
        installHandler(signalNumber, handleSignal);
}

SignalWatcher::~SignalWatcher()
{
    if (pair[0] < 0)
        return;
    for (int signalNumber : WatchedSignals)
        installHandler(signalNumber, SIG_DFL);
    writeEnd = -1;
    delete notifier;
    ::close(pair[0]);
    ::close(pair[1]);
}

bool SignalWatcher::isWatching() const
{
    return notifier != nullptr;
}

void SignalWatcher::slotSignalArrived()
{
    unsigned char byte = 0;
    // Several signals may be waiting; each is reported.
    while (::read(pair[1], &byte, 1) == 1)
        emit terminationRequested(byte);
}
