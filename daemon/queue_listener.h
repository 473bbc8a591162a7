// A System V message queue and the thread that receives from it (msgget(2), msgrcv(2)).
//
//     T_MSGQ_service listener(65521, on_record, 144);
//     listener.server_start();
//     ...
//     listener.server_stop();     // removes the queue from the host, and waits for the thread
//
// Host programs own the sending ends; a record is input from outside, of the agreed size at most. One that is longer
// cannot be received: it stays at the head of the queue and keeps all behind it back, until somebody takes it out.
#ifndef VEXPROD_DAEMON_QUEUE_LISTENER_H
#define VEXPROD_DAEMON_QUEUE_LISTENER_H

#include <pthread.h>

class T_MSGQ_service {
public:
    /// Gets the queue, or makes it, readable by all and writable by its owner. A failure is not reported.
    /// @param callback  Receives each record, type word first; its bytes beyond what was sent are 0. Called on the
    ///                  listener's thread, one record at a time, in queue order; it must copy what it keeps.
    /// @param size      Bytes of a record's body, without the type word.
    T_MSGQ_service(int key, void (*callback)(void*), unsigned long size);
    T_MSGQ_service(const T_MSGQ_service&) = delete;
    T_MSGQ_service& operator=(const T_MSGQ_service&) = delete;
    ~T_MSGQ_service() = default; // KEPT: stopping is explicit

    /// Starts the receiving thread, in which SIGINT and SIGTERM are blocked. @return 0.
    int server_start();
    /// Says that server_stop() is about to come: from here on no callback begins. Lets several listeners finish the
    /// callback that each is in at the same time, instead of one after another.
    void announce_stop();
    /// Removes the queue, which ends the receive, and joins the thread; a callback under way is waited for. @return 0.
    int server_stop();
    /// Deletes the queue from the host. Records still in it are lost.
    void remove_msgq() const;

    /// Posts a record without blocking. For producers; any thread.
    /// @param msg   Type word and body.
    /// @param size  Bytes of the body.
    /// @return 0 sent, 101 no queue with that key, 100 the look-up failed otherwise, 102 not sent (full, or another
    ///         error).
    static int send_msg(int key, const void* msg, unsigned long size);

private:
    void recv_thread_create();
    void recv_thread_destroy();
    [[nodiscard]] bool is_stopping() const;
    static void* do_msg_recv(void* self);

    pthread_t thread_ = {}; ///< No thread has the identity 0.
    unsigned long size_;
    int id_; ///< -1 when the queue could not be had.
    int key_;
    int stop_ = 0; ///< Written by the stopping thread, read by the receiving one: atomically.
    void (*callback_)(void*);
};

#endif
