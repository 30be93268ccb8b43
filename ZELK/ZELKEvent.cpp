#include "ZELKEvent.h"

const char* const IssuerMetaArrayUtil::kLower[kCount] = {"issuerCN", "issuerC", "issuerS",
                                                         "issuerL",  "issuerO", "issuerOU"};
const char* const IssuerMetaArrayUtil::kCapital[kCount] = {"IssuerCN", "IssuerC", "IssuerS",
                                                           "IssuerL",  "IssuerO", "IssuerOU"};
const char* const IssuerMetaArrayUtil::kBind[kCount] = {":issuerCN", ":issuerC", ":issuerS",
                                                        ":issuerL",  ":issuerO", ":issuerOU"};
