package kavra.test;

import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;

/**
 * Stands in for a Java class that owns a native object: native code calls
 * its static postEventFromNative, which records each call. Tests can make
 * callers wait inside the call until a number of them are in it at once.
 */
public final class EventRecorder {
    /** One recorded call. */
    public static final class Event {
        public final Object ref;
        public final int what;
        public final int arg1;
        public final int arg2;
        public final String thread;

        Event(Object ref, int what, int arg1, int arg2, String thread) {
            this.ref = ref;
            this.what = what;
            this.arg1 = arg1;
            this.arg2 = arg2;
            this.thread = thread;
        }
    }

    /** A "what" value that makes the call throw. */
    public static final int THROW = -1;

    private static final Object LOCK = new Object();
    private static final List<Event> EVENTS = new ArrayList<>();
    private static CountDownLatch meeting;
    private static int met;

    public EventRecorder() {}

    public static void postEventFromNative(Object ref, int what, int arg1, int arg2) {
        CountDownLatch latch;
        synchronized (LOCK) {
            EVENTS.add(new Event(ref, what, arg1, arg2, Thread.currentThread().getName()));
            latch = meeting;
        }
        if (what == THROW) {
            throw new IllegalStateException("handler failed");
        }
        if (latch != null) {
            latch.countDown();
            try {
                if (latch.await(10, TimeUnit.SECONDS)) {
                    synchronized (LOCK) {
                        met++;
                    }
                }
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
            }
        }
    }

    /** Clears the record; with parties above 0, calls wait for each other. */
    public static void reset(int parties) {
        synchronized (LOCK) {
            EVENTS.clear();
            met = 0;
            meeting = parties > 0 ? new CountDownLatch(parties) : null;
        }
    }

    public static int count() {
        synchronized (LOCK) {
            return EVENTS.size();
        }
    }

    /** How many calls found all parties inside the call at once. */
    public static int met() {
        synchronized (LOCK) {
            return met;
        }
    }

    public static Event event(int index) {
        synchronized (LOCK) {
            return EVENTS.get(index);
        }
    }
}
