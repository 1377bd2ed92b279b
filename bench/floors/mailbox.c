// SPDX-License-Identifier: Apache-2.0
// Stands for a mailbox: a queue of messages from malloc under a mutex, and an eventfd that is readable while it holds some.
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "floors.h"

typedef struct Message {
  struct Message* next;
  uint32_t event;
  void* parameter;
} Message;

struct FloorMailbox {
  pthread_mutex_t lock;
  int notification;
  Message* first;
  Message* last;
};

FloorMailbox* FloorMailboxOpen(void) {
  FloorMailbox* mailbox = calloc(1, sizeof *mailbox);
  if (mailbox == NULL) return NULL;
  pthread_mutex_init(&mailbox->lock, NULL);
  mailbox->notification = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  return mailbox;
}

void FloorMailboxClose(FloorMailbox* mailbox) {
  close(mailbox->notification);
  pthread_mutex_destroy(&mailbox->lock);
  free(mailbox);
}

int FloorMailboxSend(FloorMailbox* mailbox, uint32_t event, void* parameter) {
  Message* message = malloc(sizeof *message);
  if (message == NULL) return -1;
  *message = (Message){NULL, event, parameter};
  pthread_mutex_lock(&mailbox->lock);
  if (mailbox->first == NULL) {
    mailbox->first = message;
    eventfd_write(mailbox->notification, 1);
  } else {
    mailbox->last->next = message;
  }
  mailbox->last = message;
  pthread_mutex_unlock(&mailbox->lock);
  return 0;
}

int FloorMailboxReceive(FloorMailbox* mailbox, uint32_t* event, void** parameter) {
  pthread_mutex_lock(&mailbox->lock);
  Message* message = mailbox->first;
  if (message != NULL) {
    mailbox->first = message->next;
    eventfd_t count = 0;
    if (mailbox->first == NULL) eventfd_read(mailbox->notification, &count);
  }
  pthread_mutex_unlock(&mailbox->lock);
  if (message == NULL) return -1;
  *event = message->event;
  *parameter = message->parameter;
  free(message);
  return 0;
}
