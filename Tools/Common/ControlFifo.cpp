#include "ControlFifo.h"

#include <QSocketNotifier>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace simcommon {

namespace {
// A line longer than this is no order: it is dropped.
constexpr int kMaxLine = 4096;
} // namespace

ControlFifo::ControlFifo(QObject* parent) : QObject(parent) {}

ControlFifo::~ControlFifo()
{
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

bool ControlFifo::Open(const QString& path, QString* error)
{
    const QByteArray name = path.toLocal8Bit();
    struct stat status
    {
    };
    if (::stat(name.constData(), &status) != 0) {
        if (errno != ENOENT || ::mkfifo(name.constData(), 0600) != 0) {
            *error = QStringLiteral("can't make the control pipe %1: %2")
                         .arg(path, QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
    } else if (!S_ISFIFO(status.st_mode)) {
        *error = QStringLiteral("%1 exists and isn't a named pipe").arg(path);
        return false;
    }
    // Read and write: a pipe opened for reading alone would read end-of-file
    // (and poll readable for ever) once the first writer closed it.
    m_fd = ::open(name.constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (m_fd < 0) {
        *error = QStringLiteral("can't open the control pipe %1: %2")
                     .arg(path, QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    m_notifier = new QSocketNotifier(m_fd, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &ControlFifo::OnReadable);
    return true;
}

void ControlFifo::SetHandler(std::function<void(const QString& line)> handler)
{
    m_handler = std::move(handler);
}

void ControlFifo::OnReadable()
{
    char chunk[4096];
    for (;;) {
        const ssize_t n = ::read(m_fd, chunk, sizeof(chunk));
        if (n <= 0) {
            break;
        }
        m_pending.append(chunk, static_cast<int>(n));
    }
    for (int end = m_pending.indexOf('\n'); end >= 0; end = m_pending.indexOf('\n')) {
        const QString line = QString::fromUtf8(m_pending.left(end)).trimmed();
        m_pending.remove(0, end + 1);
        if (!line.isEmpty() && m_handler) {
            m_handler(line);
        }
    }
    if (m_pending.size() > kMaxLine) {
        m_pending.clear();
    }
}

} // namespace simcommon
