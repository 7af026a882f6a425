// white-list-cpp.cpp: locking around the white list core.
#include "filter/white-list-cpp.h"

WhiteListCpp::WhiteListCpp() {
    white_list_init(&list);
}

WhiteListCpp::~WhiteListCpp() {
    white_list_destroy(&list);
}

int WhiteListCpp::Load(const ustring& path, parse_report* report) {
    std::lock_guard<std::mutex> guard(lock);
    white_list_destroy(&list);
    white_list_init(&list);
    return white_list_read(&list, path.c_str_utf8(), report);
}

void WhiteListCpp::Clear() {
    std::lock_guard<std::mutex> guard(lock);
    white_list_destroy(&list);
    white_list_init(&list);
}

int WhiteListCpp::Test(const ustring& name) {
    std::lock_guard<std::mutex> guard(lock);
    return white_list_test(&list, name.c_str_utf8());
}
