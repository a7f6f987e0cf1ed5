// Symbol visibility for the connector_common_services shared object.
//
// The library is built with hidden visibility; CONNECTOR_EXPORT marks what a host may link
// against: the four providers, the framework's non-template entry points and the foundation
// libraries. Polymorphic framework types are exported whole so that their type information is
// one and the same on both sides of the shared-object boundary (dynamic_cast, catch clauses).
#pragma once

#define CONNECTOR_EXPORT __attribute__((visibility("default")))
