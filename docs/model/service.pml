/*
 * One service, from ks_start() to the end of its run, for SPIN. What is claimed, what came out and what is left out
 * stands in README.md beside this file; scripts/check-model runs it.
 *
 * Each rule is headed by the function that it stands for. One atomic block is what one party does between two points at
 * which somebody else's step could make a difference; between two blocks anybody may go first. What belongs to one
 * process or thread of the service alone is local to its proctype.
 *
 * Sizes and budgets, set with -D:
 *   CONSUMERS, CALLERS    1 or 2 workers; up to 4 callers
 *   BATCH                 events that one epoll_wait() reports, for 64
 *   MAX_WAITING           callers that the list takes, for 1,000
 *   KILLS                 deaths of consumers; with one or more they are processes, otherwise threads
 *   SHORTAGES             things that fail for want of memory or descriptors
 * Other switches:
 *   NO_STOP               nobody stops the service
 *   ENDLESS_PATIENCE      the honest caller has no time-out of its own
 *   BROKEN_...            leaves one thing out of the protocol; each stands where it acts
 */
#ifndef CONSUMERS
#define CONSUMERS 2
#endif
#ifndef CALLERS
#define CALLERS 3
#endif
#ifndef BATCH
#define BATCH 2
#endif
#ifndef MAX_WAITING
#define MAX_WAITING CALLERS
#endif
#ifndef KILLS
#define KILLS 0
#endif
#ifndef SHORTAGES
#define SHORTAGES 0
#endif

#define NONE 15

/* The caller that says nothing before it is invited, says the right thing then and at once, and stays. It is a process
 * of its own below. The others, 1 and up, are none: whenever somebody looks at one, it may have done anything. */
#define HONEST 0

mtype = { transfer, descriptor, no_descriptor, stop, /* producer to consumer */
          echo, ready,                               /* consumer to producer */
          accepted, turned_away, reply };            /* service to caller */

/* ---- What the kernel keeps. */

bool bound, withdrawn;    /* the listening socket: there is one; it is shut down */
bool knocking;            /* the honest caller is in its backlog */
bool left, spoke;         /* the honest caller: has closed its end; has sent its request */
bool shut;                /* the service's end of its connection is shut down, or has been closed */
byte copies[CALLERS];     /* descriptors of the service's end, those on their way counted */
chan to_honest = [2] of { mtype };
chan to_consumer[CONSUMERS] = [3] of { mtype, byte };
chan to_producer[CONSUMERS] = [2] of { mtype, byte };
bool cut[CONSUMERS];      /* the link is shut down */
bool alive[CONSUMERS];    /* its thread or process has been started and has not ended */
bool killed[CONSUMERS];

/* ---- The handle, under its lock. */

bool listening, stop_requested;
bool over; /* phase::idle again */

/* ---- For the claims. */

bool taken[CALLERS]; /* a consumer has received the connection, or nobody can any more */
byte kills = KILLS, shortages = SHORTAGES;

/* shutdown() of a caller's connection, send_directive() on it. What the others hear changes nothing. */
inline shut_down(c) {
    if
    :: c == HONEST -> shut = true
    :: else
    fi
}

inline tell_caller(c, what) {
    if
    :: c == HONEST -> to_honest!what
    :: else
    fi
}

/* close() of one descriptor of a connection; the last one hangs up. */
inline drop(c) {
    assert(copies[c] > 0); /* CLAIM: nothing is closed twice */
    copies[c]--;
    if
    :: copies[c] == 0 ->
        taken[c] = true;
        if
        :: c == HONEST -> shut = true
        :: else
        fi
    :: else
    fi
}

/* close() of both ends of a link: what is on its way goes with it. */
inline close_link(w) {
    do
    :: to_consumer[w]??[descriptor, _] -> to_consumer[w]??descriptor, lost; drop(lost); lost = 0
    :: else -> break
    od;
    do
    :: len(to_consumer[w]) > 0 -> to_consumer[w]?_, _
    :: len(to_producer[w]) > 0 -> to_producer[w]?_, _
    :: else -> break
    od;
    cut[w] = false
}

/* ---- client.cpp: connect_until(), perform(), send_request(), end_connection(). */

proctype honest_caller() {
    bool answered, busy;

    if
    :: atomic { bound && !withdrawn -> knocking = true; copies[HONEST] = 1 }
    :: atomic { !bound || withdrawn -> goto away } /* KS_NO_SERVICE */
    fi;
    do
    :: atomic { to_honest?accepted -> spoke = true }
    :: to_honest?turned_away -> busy = true; break
    :: to_honest?reply -> answered = true; break
    :: shut && len(to_honest) == 0 -> break
#ifndef ENDLESS_PATIENCE
    :: kills < KILLS -> break /* KS_TIMEOUT */
#endif
    od;
    atomic {
        left = true;
        /* CLAIM: whoever keeps to the protocol is answered, whatever the others do. */
        assert(answered || busy || stop_requested || kills < KILLS || shortages < SHORTAGES)
    };
away:
    skip
}

/* ---- service.cpp: ks_stop(), at any moment or never. */

/* request_stop(), withdraw() */
inline request_stop() {
    if
    :: over
    :: else ->
        stop_requested = true; /* with `paused` and `stopping` */
        if
        :: listening -> withdrawn = true
        :: else
        fi
    fi
}

proctype stopper() {
    if
    :: true
#ifndef NO_STOP
    :: true -> atomic { request_stop() }; over
#endif
    fi
}

/* ---- consumer.cpp, worker.cpp */

/* send_directive() on the link, which fails when it is shut down. */
inline tell_producer(what, value) {
    if
    :: cut[w]
    :: else -> assert(len(to_producer[w]) < 2); to_producer[w]!what, value
    fi
}

#ifdef BROKEN_NO_LOOK_AT_THE_LINK
#define LINK_SPEAKS false
#else
#define LINK_SPEAKS (len(to_consumer[w]) > 0 || cut[w])
#endif

/* All threads or processes, one after the other, that the table's entry w stands for. */
proctype consumer(byte w) {
    byte conn = NONE;   /* the connection that it holds a descriptor of */
    byte number = NONE; /* in the transfer */
    bool silent;        /* the caller says nothing for as long as it is waited for */

end_none:
    {
end_idle:
        do /* run_consumer(), hear_producer() */
        :: alive[w] && cut[w] -> break
#if SHORTAGES > 0
        :: atomic { alive[w] && shortages > 0 -> shortages--; break } /* it gets no epoll */
#endif
        :: atomic { alive[w] && !cut[w] && to_consumer[w]?[stop, _] -> to_consumer[w]?stop, _; break }
        :: atomic { alive[w] && !cut[w] && to_consumer[w]?[transfer, _] ->
                to_consumer[w]?transfer, number;
                if /* take_transfer() */
                :: to_consumer[w]?descriptor, conn -> assert(!taken[conn]); taken[conn] = true /* CLAIM: by one */
                :: to_consumer[w]?no_descriptor, _
                :: cut[w] && len(to_consumer[w]) == 0
                fi
            };
            atomic {
#ifndef BROKEN_NO_ECHO
                tell_producer(echo, number);
#endif
                number = NONE;
                if
                :: conn == NONE -> goto report
                :: conn == HONEST && (left || shut) -> goto part
                :: else -> tell_caller(conn, accepted)
                fi;
                if
                :: true
                :: conn != HONEST -> silent = true
                fi
            };
            atomic {
                /* wait_for_caller(): the 30 seconds may be over at any moment, but a stop must not depend on that. */
                !silent || LINK_SPEAKS || !stop_requested ->
                silent = false;
                if /* hear_request() */
                :: conn == HONEST && (left || shut) -> goto part
                :: conn == HONEST && !(left || shut) && spoke -> to_honest!reply /* execute(), ks_reply() */
                :: conn == HONEST && !(left || shut) && !spoke && LINK_SPEAKS
                :: conn != HONEST /* it has gone, or said anything; its command may give no reply */
#if KILLS == 0 && !defined(NO_STOP)
                :: conn != HONEST -> request_stop(); /* its command calls ks_stop(), which does not wait there */
#ifdef BROKEN_STOP_WAITS
                    over
#endif
#endif
                fi;
part:
                shut_down(conn); /* hang_up(), ks_io_free() */
                drop(conn);
                conn = NONE;
report:
                tell_producer(ready, w) /* report_ready() */
            }
        od;
        cut[w] = true
    } unless {
        killed[w]
    };
    atomic { /* the end of the thread, or what the kernel does at the end of a process */
        if
        :: conn != NONE -> drop(conn)
        :: else
        fi;
        conn = NONE;
        number = NONE;
        silent = false;
        killed[w] = false;
        alive[w] = false
    };
    goto end_none
}

/* SIGKILL, or a callback that ends its process, at any moment. */
proctype killer() {
end_enough:
    do
    :: atomic { kills > 0 && alive[0] && !killed[0] -> kills--; killed[0] = true }
#if CONSUMERS > 1
    :: atomic { kills > 0 && alive[1] && !killed[1] -> kills--; killed[1] = true }
#endif
    od
}

/* ---- producer.cpp */

/* What an event's pointer points to. */
#define LISTENER 0
#define LINK(w) (1 + (w))
#define ENTRY(c) (1 + CONSUMERS + (c))
#define IS_LINK(e) ((e) > 0 && (e) <= CONSUMERS)

/* forget(): takes an entry out of the rest of the batch. */
inline forget(entry) {
    do
    :: batch??[eval(entry), _] -> batch??eval(entry), _
    :: else -> break
    od
}

/* close() by number. */
#define FREE NONE
#define PLACEHOLDER 14 /* the epoll's duplicate */
inline close_number(n) {
    assert(numbers[n] != FREE); /* CLAIM: nothing is closed twice */
    if
    :: numbers[n] != PLACEHOLDER -> drop(numbers[n])
    :: else
    fi;
    numbers[n] = FREE
}

inline end_transit(w) {
    if
    :: in_transit[w] != NONE -> close_number(in_transit[w]); in_transit[w] = NONE
    :: else
    fi
}

/* unlist(); n becomes the entry's socket. */
inline unlist(c) {
    waiting??eval(c), n;
    muted[c] = false;
#ifndef BROKEN_NO_FORGET
    forget(ENTRY(c))
#endif
}

/* restart_consumer() */
inline restart_consumer(w) {
    idle[w] = true;
#ifndef BROKEN_NO_FORGET_OF_LINKS
    forget(LINK(w));
#endif
    close_link(w);
    end_transit(w);
    alive[w] = true /* start_consumer() */
}

/* hand_over(). `early` becomes the caller that is to be hung up on, because it spoke. */
inline hand_over(w) {
    waiting?<first, n>;
    unlist(first);
    if
    :: cut[w] -> shut_down(first); close_number(n)
    :: else ->
        assert(len(to_consumer[w]) == 0);
        to_consumer[w]!transfer, n;
        if
        :: to_consumer[w]!descriptor, first; copies[first]++
        :: shortages > 0 -> shortages--;
            if
#ifndef BROKEN_NO_WORD_OF_A_LOSS
            :: to_consumer[w]!no_descriptor, NONE
            :: shortages > 0 -> shortages--; cut[w] = true
#else
            :: true
#endif
            fi
        fi;
        idle[w] = false;
        in_transit[w] = n;
        if
        :: first == speaking -> early = first; early_number = n
        :: else
        fi
    fi;
    first = 0;
    n = 0
}

/* dispatch() */
inline dispatch() {
    if
    :: len(waiting) == 0
    :: else ->
        begin = cursor;
        do
        :: true ->
            candidate = cursor;
#if KILLS > 0
            if
            :: !alive[candidate] -> restart_consumer(candidate) /* waitpid() */
            :: else
            fi;
#endif
            cursor = (cursor + 1) % CONSUMERS;
            if
            :: idle[candidate] ->
                hand_over(candidate);
                if
#ifdef BROKEN_ONE_FOR_EACH
                :: true -> break
#else
                :: len(waiting) == 0 -> break
                :: else
#endif
                fi
            :: else
            fi;
            if
            :: cursor == begin -> break
            :: else
            fi
        od;
        begin = 0;
        candidate = 0
    fi
}

/* One more event for the batch. */
#define TAKES(entry, is_ready) (len(batch) < BATCH && (is_ready) && !batch??[eval(entry), _])
#define NEWCOMER (bound && !withdrawn && come < CALLERS)
#define WAITS(c) waiting??[eval(c), _]
#define IS_FREE(w) (idle[w] && !cut[w])

/* service.cpp: ks_start(), one thread, which becomes the producer. */
proctype service() {
    /* struct producer */
    chan waiting = [CALLERS] of { byte, byte }; /* caller, its socket's number */
    chan batch = [BATCH] of { byte, bool };     /* entry, whether it is a hang-up */
    bool muted[CALLERS];                        /* only the hang-up of that entry is watched */
    bool idle[CONSUMERS];
    byte in_transit[CONSUMERS] = NONE;
    byte cursor;
    byte numbers[CALLERS] = FREE; /* the process's descriptors: what each number stands for */
    byte come = 1;                /* callers that are not the honest one: the next to be accepted */
    byte speaking = NONE, early = NONE, early_number, entry, first, begin, candidate, c, w, n, lost;
    bool hangs_up;

    bound = true; /* open_producer() */
    atomic {
        listening = true;
        if
        :: stop_requested -> withdrawn = true
        :: else
        fi
    };
    atomic { /* start_all_consumers() */
        for (w : 0 .. CONSUMERS - 1) {
            idle[w] = true;
            alive[w] = true
        }
        w = 0
    };

next_batch:
    /* CLAIM: no idle consumer is forgotten while somebody waits. One whose link is cut says so itself. */
    assert(len(waiting) == 0 || !IS_FREE(0) && !IS_FREE(CONSUMERS - 1));
end_waiting:
    /* next_batch(): what is ready, or a part of it, in any order. */
    atomic {
        do
        :: TAKES(LISTENER, knocking || NEWCOMER) -> batch!LISTENER, false
        :: TAKES(LISTENER, withdrawn) -> batch!LISTENER, true
        :: TAKES(LINK(0), len(to_producer[0]) > 0 || cut[0]) -> batch!LINK(0), cut[0]
#if CONSUMERS > 1
        :: TAKES(LINK(1), len(to_producer[1]) > 0 || cut[1]) -> batch!LINK(1), cut[1]
#endif
        :: TAKES(ENTRY(0), WAITS(0) && (left || shut)) -> batch!ENTRY(0), true
#if CALLERS > 1
        :: TAKES(ENTRY(1), WAITS(1)) -> batch!ENTRY(1), true
        :: TAKES(ENTRY(1), WAITS(1) && !muted[1]) -> batch!ENTRY(1), false
#endif
#if CALLERS > 2
        :: TAKES(ENTRY(2), WAITS(2)) -> batch!ENTRY(2), true
        :: TAKES(ENTRY(2), WAITS(2) && !muted[2]) -> batch!ENTRY(2), false
#endif
#if CALLERS > 3
        :: TAKES(ENTRY(3), WAITS(3)) -> batch!ENTRY(3), true
        :: TAKES(ENTRY(3), WAITS(3) && !muted[3]) -> batch!ENTRY(3), false
#endif
        :: len(batch) > 0 -> break
        od
    };
    if
    :: stop_requested -> goto end_run
    :: else
    fi;

    /* run_producer(), handle_event() */
    do
    :: len(batch) == 0 && early == NONE -> goto next_batch
    :: atomic { early != NONE -> /* the end of hand_over(): the consumer may have been quicker */
            shut_down(early);
            drop(early);
#ifdef BROKEN_NO_PLACEHOLDER
            numbers[early_number] = FREE;
#else
            numbers[early_number] = PLACEHOLDER; /* dup3() */
#endif
            early = NONE;
            early_number = 0
        }
    :: atomic { len(batch) > 0 && early == NONE ->
            batch?entry, hangs_up;
            if
            :: entry == LISTENER && hangs_up -> goto end_run
            :: entry == LISTENER && !hangs_up -> /* accept_caller() */
                if
                :: knocking -> knocking = false; c = HONEST
                :: come < CALLERS -> c = come; copies[c] = 1; come++
                fi;
                do
                :: numbers[n] == FREE -> numbers[n] = c; break
                :: else -> n++
                od;
                if
                :: stop_requested || len(waiting) >= MAX_WAITING -> /* turn_away() */
                    tell_caller(c, turned_away);
                    shut_down(c);
                    close_number(n)
                :: else ->
                    waiting!c, n;
                    dispatch()
                fi
            :: IS_LINK(entry) && hangs_up ->
                assert(cut[entry - LINK(0)]); /* CLAIM: a link that was replaced is not taken for the present one */
                goto end_run
            :: IS_LINK(entry) && !hangs_up -> /* hear_consumer() */
                w = entry - LINK(0);
                if
                :: to_producer[w]?echo, n ->
                    if
                    :: in_transit[w] == n -> end_transit(w)
                    :: else
                    fi
                :: to_producer[w]?ready, _ -> idle[w] = true; dispatch()
                :: len(to_producer[w]) == 0 -> assert(!cut[w]) /* EAGAIN; the end of the stream would abort */
                fi
            :: entry >= ENTRY(0) ->
                c = entry - ENTRY(0);
                assert(WAITS(c)); /* CLAIM: no entry is used after it has been freed */
                if
                :: hangs_up -> unlist(c); shut_down(c); close_number(n) /* remove_caller() */
                :: else -> /* hear_caller() */
                    speaking = c;
                    dispatch();
                    speaking = NONE;
                    if
                    :: WAITS(c) -> muted[c] = true
                    :: else
                    fi
                fi
            fi;
            entry = 0;
            hangs_up = false;
            c = 0;
            w = 0;
            n = 0
        }
    od;

end_run:
    atomic { /* the end of run_producer() */
        do
        :: len(waiting) > 0 -> waiting?<c, n>; unlist(c); close_number(n)
        :: else -> break
        od;
        do
        :: len(batch) > 0 -> batch?_, _
        :: else -> break
        od;
        c = 0;
        n = 0
    };
    listening = false; /* end_run() */
    atomic {
        bound = false;
        if
        :: knocking -> knocking = false; drop(HONEST)
        :: else
        fi
    };
    for (w : 0 .. CONSUMERS - 1) {
        atomic {
            if
            :: cut[w]
            :: else -> to_consumer[w]!stop, NONE
            fi
        }
    }
    for (w : 0 .. CONSUMERS - 1) {
        !alive[w] /* waitpid(), or `running` */
    }
    atomic {
        for (w : 0 .. CONSUMERS - 1) {
            close_link(w);
            end_transit(w)
        }
        /* CLAIM: everything is closed. */
        for (c : 0 .. CALLERS - 1) {
            assert(numbers[c] == FREE && copies[c] == 0)
        }
        over = true
    }
}

init {
    byte i;
    atomic {
        run service();
        run stopper();
        run honest_caller();
        for (i : 0 .. CONSUMERS - 1) {
            run consumer(i)
        }
#if KILLS > 0
        run killer()
#endif
    }
}

ltl stop_ends { [] (stop_requested -> <> over) }
