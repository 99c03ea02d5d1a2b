local function sift(items, root, last)
  while 2 * root <= last do
    local child = 2 * root
    if child < last and items[child].price < items[child + 1].price then child = child + 1 end
    if items[root].price >= items[child].price then return end
    items[root], items[child] = items[child], items[root]
    root = child
  end
end
local function heapsort(items, n)
  for i = n // 2, 1, -1 do sift(items, i, n) end
  for i = n, 2, -1 do
    items[1], items[i] = items[i], items[1]
    sift(items, 1, i - 1)
  end
end

local n, seed, items = math.tointeger(arg[1]), 5, {}
for i = 1, n do
  seed = (seed * 3877 + 29573) % 139968
  items[i] = {name = "item " .. i, price = seed / 4}
end
heapsort(items, n)
local check = 0
for i = 1, n do check = (check * 7 + math.tointeger(items[i].price * 4)) % 1000003 end
print(items[1].name .. ", " .. items[n].name .. ", " .. check)
