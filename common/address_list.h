// SPDX-License-Identifier: Apache-2.0
// What getaddrinfo finds, freed with its owner.
#ifndef COMMON_ADDRESS_LIST_H
#define COMMON_ADDRESS_LIST_H

#include <netdb.h>

#include <memory>

namespace common {

struct FreeAddresses {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using AddressList = std::unique_ptr<addrinfo, FreeAddresses>;

}  // namespace common

#endif  // COMMON_ADDRESS_LIST_H
