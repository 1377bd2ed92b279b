// SPDX-License-Identifier: Apache-2.0
// Atomic access to plain fields of C records: counters and handles that one thread changes while another reads.
// Accesses are relaxed unless the name says otherwise: a single value is whole, but nothing is ordered around it.
#ifndef MD_ATOMIC_H
#define MD_ATOMIC_H

template <typename T>
inline T MdLoad(const T& field) {
  return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

template <typename T>
inline T MdLoadAcquire(const T& field) {
  return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}

template <typename T, typename V>
inline void MdStore(T& field, V value) {
  __atomic_store_n(&field, static_cast<T>(value), __ATOMIC_RELAXED);
}

template <typename T, typename V>
inline void MdStoreRelease(T& field, V value) {
  __atomic_store_n(&field, static_cast<T>(value), __ATOMIC_RELEASE);
}

template <typename T, typename V>
inline T MdAddFetch(T& field, V amount) {
  return __atomic_add_fetch(&field, static_cast<T>(amount), __ATOMIC_RELAXED);
}

// The same for a field that nobody else changes meanwhile, because a lock keeps them out: reading and storing are atomic,
// the step between them is not, which makes it much cheaper.
template <typename T, typename V>
inline T MdCount(T& field, V amount) {
  const T value = static_cast<T>(MdLoad(field) + static_cast<T>(amount));
  MdStore(field, value);
  return value;
}

// Stores 'desired' if the field is 'expected'. Returns whether it stored.
template <typename T>
inline bool MdCompareExchange(T& field, T expected, T desired) {
  return __atomic_compare_exchange_n(&field, &expected, desired, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

#endif  // MD_ATOMIC_H
