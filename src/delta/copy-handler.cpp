#include "delta/copy-handler.h"

int CopyHandler::begin() {
    return fd_open_write(file, fd);
}

int CopyHandler::update(const void* buffer, size_t length) {
    return fd_aio_write(aio, fd, buffer, length);
}

int CopyHandler::wait() {
    return fd_aio_wait(aio) < 0 ? -1 : 0;
}

int CopyHandler::end() {
    fd_close(fd);
    file.clear();
    return 0;
}
