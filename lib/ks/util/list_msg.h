// Numbers of the messages of lists.
#pragma once

enum ListMsg : unsigned {
    list_msg_null_storage = 0,
    list_msg_too_many_attrs = 1, // bytes to store, bytes provided: two ints
    list_msg_no_storage = 2,
};
