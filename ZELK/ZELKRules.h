// Records the policy store queues for batched writes: one trust rule, and
// one member of a user list.  Empty texts are stored as SQL NULL, which the
// trust-rule lookup reads as "any".
#ifndef ZELK_ZELKRULES_H_
#define ZELK_ZELKRULES_H_

#include <cstdint>
#include <string>

#include "ZELKEvent.h"
#include "ZELKHash.h"

struct ac_trust_rule {
    std::string processName;  // path or wildcard pattern of the acting process
    std::string paths;        // ";"-separated target path patterns
    int64_t trustType = 0;    // DALTrustType; 0 matches every type
    std::string signerName;
    std::string productName;
    std::string companyName;
    SHA256Hash sha256;  // no bytes: any file
    std::string issuer[IssuerMetaArrayUtil::kCount];
    std::string ruleset;
    std::string procUser;
    std::string procGroup;
    std::string userList;  // UserList.id whose members the user must be among
};

struct ac_user_list {
    std::string id;
    std::string user;
};

#endif  // ZELK_ZELKRULES_H_
