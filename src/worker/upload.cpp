// upload.cpp: UploadLocal, a local creation or change carried to the server.
#include "foundation/error-code.h"
#include "worker/worker.h"

// Until uploads are carried out here, a local change is given back (-1, "Interrupted") and
// stays pending, so nothing is lost and nothing is marked as agreed.
int Worker::UploadLocal() {
    return ERR_INT;
}
