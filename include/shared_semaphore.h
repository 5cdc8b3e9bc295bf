#pragma once
/// @file
/// A semaphore shared between a parent and a forked child.
///
/// The parent initialises it and forks; the child posts once, which also unmaps the child's
/// view; the parent waits with cleanup. Failures are logged at level 5 with source
/// "shared_semaphore" and errno. All results are 0 on success and 1 on failure.

#include <semaphore.h>

/// Maps shared memory for a semaphore and sets it up with value 0.
/// @param sem receives the semaphore, or NULL on failure; it belongs to the caller until
///        my_shared_semaphore_wait_and_cleanup()
int my_shared_semaphore_init(sem_t** sem);
/// Posts, then unmaps this process's view: @p sem is not usable here afterwards.
int my_shared_semaphore_post(sem_t* sem);
/// Waits and leaves the mapping. A wait that a signal interrupts fails.
int my_shared_semaphore_wait(sem_t* sem);
/// Waits, then destroys the semaphore and unmaps it, also when the wait failed.
int my_shared_semaphore_wait_and_cleanup(sem_t* sem);
