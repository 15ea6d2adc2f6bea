# Turns the programs' results into rows: each row compares "row/ours" with its peer, repetition by repetition.
# Input: an array of Google Benchmark's JSON documents, and of some made by scripts/bench in the same form.

# What a row compares: a value of its results; with `from`, that value beside the value at the argument `from`.
# Where nothing waits, processor time is compared: other work on the machine disturbs it least. A row is met when the
# ratio to the peer is within the goal, or, with `absolute`, when our own value is.
def row($name): {name: $name, peer: $name, value: "cpu_time", slack: 0, from: null, absolute: false, goal: null};
def goals: [
  (row("store: read a string", "store: read an integer", "store: read a boolean") | .goal = 0.5),
  (row("volatile write") | .peer = "write" | .value = "real_time" | .goal = 0.05),
  (row("persistent write") | .peer = "write" | .value = "real_time" | .goal = 1),
  (("median", "p99") as $value
    | (row("volatile set to callback") | .goal = 0.05), (row("persistent set to callback") | .goal = 1 / 3)
    | .peer = "set to callback" | .value = $value),
  (row("wrong deliveries of 100,000", "wake-ups in 10 idle seconds") | .value = "count" | .absolute = true | .goal = 0),
  (row("get, as a process") | .value = "real_time" | .goal = 1),
  (row("deliver") | .goal = 1.6),
  (row("deliver by topic") | .peer = "deliver"),
  (row("deliver to watches") | .goal = 1 | .slack = 40),
  (row("deliver", "deliver by topic") | .peer = "deliver" | .value = "instructions"),
  (row("read a string", "read an integer", "read a boolean", "write a string", "write a boolean")
    | (.goal = 1.1 | .slack = 3), .value = "instructions"),
  (("real_time", "cpu_time") as $value
    | row("store: reads", "deliveries", "reads") | .value = $value | .goal = 1.3 | .from = "1"),
  (row("heap allocations of a setter, 100 bytes") | .value = "count" | .goal = 1),
  (row("enable", "disable", "list") | .goal = 0.95),
  (row("enable", "disable", "list") | .goal = 120 | .from = "1000" | .absolute = true),
  (row("peak heap bytes of enable", "peak heap bytes of disable", "peak heap bytes of list")
    | .value = "count" | .goal = 0.6),
  (row("bytes of a watcher", "bytes of a watcher with a callback, in all", "bytes of the stripped library",
       "bytes of the library's code") | .value = "count")
];

def spread: if . == [] then null else sort | {median: .[length / 2 | floor], min: .[0], max: .[-1]} end;
def over($others): . as $values | [range([$values, $others | length] | min) | $values[.] / $others[.]];
def nanoseconds: {ns: 1, us: 1e3, ms: 1e6, s: 1e9};

# A result's name is row/side/argument/settings...; only the first three matter here. On threads the argument is their
# number.
def results:
  [.[].benchmarks[] | select(.run_type != "aggregate")
   | (.name | split("/")) as $part
   | (.time_unit // "ns") as $unit
   | .row = $part[0] | .side = $part[1]
   | .argument = ((.name | capture("^[^/]*/[^/]*(/|/real_time/threads:)(?<n>[0-9]+)(/|$)").n) // "")
   | (.real_time, .cpu_time) |= if . then . * nanoseconds[$unit] else . end];

results as $all
| def values($row; $side; $argument; $value):
    [$all[] | select(.row == $row and .side == $side and .argument == $argument) | .[$value] // empty];
  [goals[] as $goal
   | ([$all[] | select(.row == $goal.name and .side == "ours").argument] | unique_by(tonumber? // 0)[]) as $argument
   | select($goal.from == null or ($argument | tonumber) > ($goal.from | tonumber))
   | def measured($row; $side):
       values($row; $side; $argument; $goal.value)
       | if $goal.from then over(values($row; $side; $goal.from; $goal.value)) else . end;
     measured($goal.name; "ours") as $ours
   | measured($goal.peer; "peer") as $peer
   | select($ours != [])
   | {row: $goal.name, argument: $argument, value: $goal.value, from: $goal.from, goal: $goal.goal,
      slack_ns: $goal.slack, absolute: $goal.absolute, ours: ($ours | spread), peer: ($peer | spread),
      ratio: ($ours | over($peer) | spread)}
   | .met = (if .goal == null then null
             elif .absolute then .ours.median <= .goal
             elif .ratio == null then null
             else .ratio.median <= .goal or (.slack_ns > 0 and .ours.median - .peer.median <= .slack_ns) end)]
| {rows: ., results: $all}
