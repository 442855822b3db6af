package kavra.test;

import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;

/**
 * Stands in for a Java class that owns a native object: native code calls
 * its static postEventFromNative, which records the "what" of each call
 * (and throws for THROW). Tests can make callers wait inside the call until
 * a number of them are in it at once.
 */
public final class EventRecorder {
    public static final int THROW = -1;

    private static final List<Integer> WHATS = new ArrayList<>();
    private static CountDownLatch meeting;
    private static int met;

    public static void postEventFromNative(Object ref, int what, int arg1, int arg2) throws InterruptedException {
        CountDownLatch latch;
        synchronized (EventRecorder.class) {
            WHATS.add(what);
            latch = meeting;
        }
        if (what == THROW) {
            throw new IllegalStateException("handler failed");
        }
        if (latch != null) {
            latch.countDown();
            if (latch.await(10, TimeUnit.SECONDS)) {
                synchronized (EventRecorder.class) {
                    met++;
                }
            }
        }
    }

    /** Clears the record; with parties above 0, calls wait for each other. */
    public static synchronized void reset(int parties) {
        WHATS.clear();
        met = 0;
        meeting = parties > 0 ? new CountDownLatch(parties) : null;
    }

    public static synchronized int count() {
        return WHATS.size();
    }

    /** The sum of the recorded "what" values. */
    public static synchronized int whatSum() {
        return WHATS.stream().mapToInt(Integer::intValue).sum();
    }

    /** How many calls found all parties inside the call at once. */
    public static synchronized int met() {
        return met;
    }
}
