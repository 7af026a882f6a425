// resume.cpp: transfer tokens.
#include "resume.h"

#include <filesystem>
#include <string>
#include <system_error>

#include "transport/proto-format.h"

uint32_t HandleGetToken(ServerStore& store, int64_t account_id, uint64_t view_id, PObject& reply) {
    std::string token;
    if (store.CreateToken(account_id, view_id, token) < 0) return SPROTO_ERR_INTERNAL;
    reply["resume_token"] = token.c_str();
    return 0;
}

uint32_t HandleGetStatus(ServerStore& store, int64_t account_id, uint64_t view_id,
                         const PObject& request, PObject& reply) {
    ResumeToken token;
    int rc = store.GetToken(request["resume_token"].asString().str(), account_id, view_id, token);
    if (rc < 0) return SPROTO_ERR_INTERNAL;
    if (rc == 0) return SPROTO_ERR_RESUME_NOTOKEN;
    std::error_code ec;
    uint64_t held = std::filesystem::file_size(store.UploadSpoolOf(token.token), ec);
    reply["file"]["offset"] = ec ? 0 : held;
    return 0;
}
