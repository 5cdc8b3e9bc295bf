#pragma once
/// @file
/// A semaphore shared between a parent and a forked child.

#include <semaphore.h>

int my_shared_semaphore_init(sem_t** sem);
int my_shared_semaphore_post(sem_t* sem);
int my_shared_semaphore_wait(sem_t* sem);
int my_shared_semaphore_wait_and_cleanup(sem_t* sem);
