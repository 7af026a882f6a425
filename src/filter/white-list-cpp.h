// white-list-cpp.h: WhiteListCpp, a session's WhiteList behind a lock, tested by workers
// while the control thread may reload it.
#pragma once

#include <mutex>

#include "filter/white-list.h"
#include "foundation/ustring.h"

class WhiteListCpp {
  public:
    // An empty list, which passes nothing.
    WhiteListCpp();
    ~WhiteListCpp();
    WhiteListCpp(const WhiteListCpp&) = delete;
    WhiteListCpp& operator=(const WhiteListCpp&) = delete;

    // Replaces the list with the file's. 0, or -1 with an empty list; `report` says why.
    int Load(const ustring& path, parse_report* report = nullptr);
    // Empties the list.
    void Clear();
    // white_list_test on the name: 0 when its extension is listed, else -1.
    int Test(const ustring& name);

  private:
    WhiteList list;
    std::mutex lock;
};
