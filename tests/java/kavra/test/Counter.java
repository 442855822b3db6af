package kavra.test;

/** A static counter the harness test calls from native threads. */
public final class Counter {
    private static int count;

    private Counter() {}

    public static synchronized void increment() {
        count++;
    }

    public static synchronized int get() {
        return count;
    }
}
