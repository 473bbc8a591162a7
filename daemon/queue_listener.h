// A System V message queue and the thread that receives from it (msgget(2), msgrcv(2)).
//
//     T_MSGQ_service listener(65521, on_record, 144);
//     listener.server_start();
//     ...
//     listener.server_stop();     // removes the queue from the host, and waits for the thread
//
// Host programs own the sending ends; a record is external input, at most of the specified size. A longer one cannot
// be received: it stays at the head of the queue and blocks all records behind it until somebody removes it.
#ifndef VEXPROD_DAEMON_QUEUE_LISTENER_H
#define VEXPROD_DAEMON_QUEUE_LISTENER_H

#include <pthread.h>

class T_MSGQ_service {
public:
    /// Opens the queue, or creates it, readable by all and writable by its owner. A failure is not reported.
    /// @param callback  Receives each record, type word first, padded with zeros to its full size. Called on the
    ///                  listener's thread, one record at a time, in queue order; it must copy what it keeps. One that
    ///                  throws loses its record, which is reported on standard error.
    /// @param size      Bytes of a record's body, without the type word.
    T_MSGQ_service(int key, void (*callback)(void*), unsigned long size);
    T_MSGQ_service(const T_MSGQ_service&) = delete;
    T_MSGQ_service& operator=(const T_MSGQ_service&) = delete;
    ~T_MSGQ_service() = default; // KEPT: stopping is explicit

    /// Starts the receiving thread, in which SIGINT and SIGTERM are blocked. @return 0.
    int server_start();
    /// Announces server_stop(): from now on no callback begins. Lets several listeners finish their current callbacks
    /// in parallel instead of one after another.
    void announce_stop();
    /// Removes the queue, which ends the receive, and joins the thread, after a running callback. @return 0.
    int server_stop();
    /// Deletes the queue from the host. Records still in it are lost.
    void remove_msgq() const;

    /// Posts a record without blocking. For producers; any thread.
    /// @param msg   Type word and body.
    /// @param size  Bytes of the body.
    /// @return 0 sent, 101 no queue with that key, 100 another look-up error, 102 not sent (full, or another error).
    static int send_msg(int key, const void* msg, unsigned long size);

private:
    void recv_thread_create();
    void recv_thread_destroy();
    [[nodiscard]] bool is_stopping() const;
    static void* do_msg_recv(void* self);

    pthread_t thread_ = {}; ///< 0 = no thread.
    unsigned long size_;
    int id_; ///< -1 if the queue could not be opened.
    int key_;
    int stop_ = 0; ///< 1 once stopping. Written by the stopping thread, read by the receiving one: atomically.
    void (*callback_)(void*);
};

#endif
