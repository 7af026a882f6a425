// download.cpp: DownloadRemote, a server creation or change brought to the disk.
#include "foundation/error-code.h"
#include "worker/worker.h"

// Until downloads are carried out here, a server change is given back (-1, "Interrupted")
// and stays pending, so the sync id it belongs to is not stored.
int Worker::DownloadRemote() {
    return ERR_INT;
}
