# Turns the results of bench_calls and bench_store into rows: each row compares "row/ours" with its peer, repetition by
# repetition. Input: an array of Google Benchmark's JSON documents.

# Where nothing waits, processor time is compared: other work on the machine disturbs it least.
def row($name): {name: $name, peer: $name, value: "cpu_time", slack: 0};
def goals: [
  (row("store: read a string", "store: read an integer", "store: read a boolean") | .goal = 0.5),
  (row("volatile write") | .peer = "write" | .value = "real_time" | .goal = 0.05),
  (row("persistent write") | .peer = "write" | .value = "real_time" | .goal = 1),
  (("median", "p99") as $value
    | (row("volatile set to callback") | .goal = 0.05), (row("persistent set to callback") | .goal = 1 / 3)
    | .peer = "set to callback" | .value = $value),
  (row("wrong deliveries of 100,000", "wake-ups in 10 idle seconds") | .value = "count" | .goal = 0),
  (row("deliver") | .goal = 1.3),
  (row("read a string", "read an integer", "read a boolean", "write a string", "write a boolean")
    | .goal = 1.1 | .slack = 3),
  (row("enable", "disable", "list") | .goal = 1.1)
];

def spread: sort | {median: .[length / 2 | floor], min: .[0], max: .[-1]};
def nanoseconds: {ns: 1, us: 1e3, ms: 1e6, s: 1e9};

# A result's name is row/side/argument/settings...; only the first three matter here.
def results:
  [.[].benchmarks[] | select(.run_type == "iteration")
   | (.name | split("/")) as $part
   | (.time_unit // "ns") as $unit
   | .row = $part[0] | .side = $part[1] | .argument = ($part[2] // "" | if test("^[0-9]+$") then . else "" end)
   | (.real_time, .cpu_time) |= (. // 0) * nanoseconds[$unit]];

results as $all
| [goals[] as $goal
   | [$all[] | select(.row == $goal.name and .side == "ours")] | group_by(.argument | tonumber? // 0)[]
   | .[0].argument as $argument
   | (map(.[$goal.value] // empty)) as $ours
   | [$all[] | select(.row == $goal.peer and .side == "peer" and .argument == $argument) | .[$goal.value] // empty]
     as $peer
   | select($ours != [])
   | {row: $goal.name, argument: $argument, value: $goal.value, goal: $goal.goal, slack_ns: $goal.slack,
      ours: ($ours | spread), peer: (if $peer == [] then null else $peer | spread end)}
   | if .value == "count" then .ratio = null | .met = (.ours.max <= .goal)
     elif .peer == null then .ratio = null | .met = null
     else .ratio = ([range([$ours, $peer | length] | min) | $ours[.] / $peer[.]] | spread)
       | .met = (.ratio.median <= .goal or (.slack_ns > 0 and .ours.median - .peer.median <= .slack_ns))
     end]
| {rows: ., results: $all}
